// Text that is put together piece by piece, quickly.
#pragma once

#include "client/format.h"
#include "client/text_encoding.h"

#include <cstring>
#include <string_view>

namespace zpregmon {

/// Appends to a buffer, which nobody else touches meanwhile and which has its size again when the
/// sink is destroyed.
class TextSink {
public:
    explicit TextSink(TextBuffer& out) : out_(out) { Look(out.size()); }
    ~TextSink() { Commit(); }
    TextSink(const TextSink&) = delete;
    TextSink& operator=(const TextSink&) = delete;

    [[gnu::always_inline]] void Put(char c) {
        Room(1);
        *at_++ = c;
    }
    [[gnu::always_inline]] void Put(std::string_view text) {
        Room(text.size());
        std::memcpy(at_, text.data(), text.size());
        at_ += text.size();
    }
    void Number(std::uint64_t number) {
        Room(20);
        at_ = WriteNumber(at_, number);
    }
    void Hex(std::span<const std::byte> bytes) {
        Room(bytes.size() * 2);
        at_ = WriteHex(at_, bytes);
    }
    /// Sixteen hex digits.
    void Hex64(std::uint64_t number) {
        Room(16);
        at_ = WriteHex64(at_, number);
    }
    void JsonText(WireText text) {
        Room(text.size() * kMostBytesPerUnit);
        at_ = WriteJsonText(at_, text);
    }
    void TerminalText(WireText text) {
        Room(text.size() * kMostBytesPerUnit);
        at_ = WriteTerminalText(at_, text);
    }
    void Spaces(std::size_t count) {
        Room(count);
        std::memset(at_, ' ', count);
        at_ += count;
    }
    /// In the way of fmt::format.
    template <typename... Args>
    void Format(fmt::format_string<Args...> text, Args&&... args) {
        Commit();
        fmt::format_to(fmt::appender(out_), text, std::forward<Args>(args)...);
        Look(out_.size());
    }

    /// Bytes in the buffer so far, and what stands from `start` on.
    std::size_t Size() const { return static_cast<std::size_t>(at_ - out_.data()); }
    std::string_view From(std::size_t start) const { return {out_.data() + start, Size() - start}; }
    /// Takes back everything from `size` on.
    void Truncate(std::size_t size) { at_ = out_.data() + size; }

private:
    [[gnu::always_inline]] void Room(std::size_t bytes) {
        if (static_cast<std::size_t>(limit_ - at_) < bytes) {
            Grow(bytes);
        }
    }
    [[gnu::cold, gnu::noinline]] void Grow(std::size_t bytes) {
        const std::size_t size = Size();
        Commit();
        out_.reserve(size + bytes);
        Look(size);
    }
    void Commit() { out_.resize(Size()); }
    void Look(std::size_t size) {
        at_ = out_.data() + size;
        limit_ = out_.data() + out_.capacity();
    }

    TextBuffer& out_;
    char* at_ = nullptr;
    char* limit_ = nullptr;
};

}  // namespace zpregmon
