// UTF-16 text where it lies in an event buffer.
#pragma once

#include <emmintrin.h>

#include <bit>
#include <cstddef>
#include <cstring>
#include <span>
#include <string>
#include <string_view>

namespace zpregmon {

/// A view of UTF-16 units at any address: names behind captured data may start at an odd one, where
/// a std::u16string_view must not point. The bytes stay their owner's.
class WireText {
public:
    constexpr WireText() = default;
    /// `units` units from `start` on.
    WireText(const std::byte* start, std::size_t units) : start_(start), size_(units) {}
    WireText(std::u16string_view text)  // NOLINT(google-explicit-constructor): both are views
        : start_(reinterpret_cast<const std::byte*>(text.data())), size_(text.size()) {}
    WireText(const std::u16string& text)  // NOLINT(google-explicit-constructor)
        : WireText(std::u16string_view(text)) {}
    WireText(const char16_t* text)  // NOLINT(google-explicit-constructor): ends in a zero
        : WireText(std::u16string_view(text)) {}

    std::size_t size() const { return size_; }
    bool empty() const { return size_ == 0; }
    const std::byte* data() const { return start_; }
    char16_t operator[](std::size_t index) const {
        char16_t unit;
        std::memcpy(&unit, start_ + index * sizeof(unit), sizeof(unit));
        return unit;
    }
    WireText Substring(std::size_t from) const {
        return {start_ + from * sizeof(char16_t), size_ - from};
    }
    WireText Prefix(std::size_t units) const { return {start_, units}; }

    std::u16string Copy() const {
        std::u16string text(size_, u'\0');
        if (size_ != 0) {
            std::memcpy(text.data(), start_, size_ * sizeof(char16_t));
        }
        return text;
    }
    friend bool operator==(const WireText& a, const WireText& b) {
        return a.size_ == b.size_ &&
               (a.size_ == 0 || std::memcmp(a.start_, b.start_, a.size_ * sizeof(char16_t)) == 0);
    }

private:
    const std::byte* start_ = nullptr;
    std::size_t size_ = 0;
};

inline constexpr std::size_t kNoTextEnd = static_cast<std::size_t>(-1);

/// The number of units before the first zero unit, or kNoTextEnd when there is none.
inline std::size_t FindTextEnd(std::span<const std::byte> bytes) {
    // Every processor that the client runs on has SSE2.
    constexpr std::size_t kAtOnce = sizeof(__m128i);
    std::size_t at = 0;
    for (; at + kAtOnce <= bytes.size(); at += kAtOnce) {
        const __m128i units = _mm_loadu_si128(reinterpret_cast<const __m128i*>(bytes.data() + at));
        const __m128i zeros = _mm_cmpeq_epi16(units, _mm_setzero_si128());
        if (const auto mask = static_cast<unsigned>(_mm_movemask_epi8(zeros)); mask != 0) {
            return (at + static_cast<unsigned>(std::countr_zero(mask))) / sizeof(char16_t);
        }
    }
    for (; at + sizeof(char16_t) <= bytes.size(); at += sizeof(char16_t)) {
        char16_t unit;
        std::memcpy(&unit, bytes.data() + at, sizeof(unit));
        if (unit == 0) {
            return at / sizeof(char16_t);
        }
    }
    return kNoTextEnd;
}

}  // namespace zpregmon
