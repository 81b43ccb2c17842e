// UTF-16 text where it lies in an event buffer.
#pragma once

#include "client/wire_field.h"

#include <emmintrin.h>

#include <bit>
#include <cstddef>
#include <cstring>
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
        return LoadField<char16_t>(start_ + index * sizeof(char16_t));
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
inline std::size_t FindTextEnd(Bytes bytes) {
    // Every processor that the client runs on has SSE2. Most names end within the first step.
    constexpr std::size_t kAtOnce = 2 * sizeof(__m128i);
    const std::byte* at = bytes.data();
    const std::byte* const end = at + bytes.size();
    const auto before = [&] {
        return static_cast<std::size_t>(at - bytes.data()) / sizeof(char16_t);
    };
    for (; static_cast<std::size_t>(end - at) >= kAtOnce; at += kAtOnce) {
        const auto* const units = reinterpret_cast<const __m128i*>(at);
        const __m128i zero = _mm_setzero_si128();
        const __m128i first = _mm_cmpeq_epi16(_mm_loadu_si128(units), zero);
        const __m128i second = _mm_cmpeq_epi16(_mm_loadu_si128(units + 1), zero);
        // One bit for each unit.
        const auto zeros = static_cast<unsigned>(_mm_movemask_epi8(_mm_packs_epi16(first, second)));
        if (zeros != 0) {
            return before() + static_cast<unsigned>(std::countr_zero(zeros));
        }
    }
    for (; static_cast<std::size_t>(end - at) >= sizeof(char16_t); at += sizeof(char16_t)) {
        if (LoadField<char16_t>(at) == 0) {
            return before();
        }
    }
    return kNoTextEnd;
}

}  // namespace zpregmon
