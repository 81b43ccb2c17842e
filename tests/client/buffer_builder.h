// Builds images of event buffers, sound ones and damaged ones.
#pragma once

#include "channel/buffer_format.h"
#include "records/record_format.h"

#include <cstddef>
#include <cstdint>
#include <cstring>
#include <string_view>
#include <vector>

namespace zpregmon {

/// A buffer with a header and, behind it, whatever is put there; records are linked by hand.
class BufferBuilder {
public:
    explicit BufferBuilder(std::size_t size) : bytes_(size) {}

    /// Places a record header; its NextOffset and NameOffset are distances, as in the format.
    BufferBuilder& Record(std::size_t at, std::int32_t next, std::int32_t name,
                          std::uint32_t type = 21) {
        zpregflt::RecordHeader header{};
        header.Type = static_cast<zpregflt::RecordType>(type);
        header.NextOffset = next;
        header.NameOffset = name;
        header.ProcessId = static_cast<std::uint32_t>(at);  // tells records apart
        return Put(at, header);
    }
    BufferBuilder& First(std::int32_t offset) { return Put(0, zpregflt::BufferHeader{0, offset}); }
    /// Text without an end, or with one where `text` holds a zero.
    BufferBuilder& Text(std::size_t at, std::u16string_view text) {
        std::memcpy(bytes_.data() + at, text.data(), text.size() * sizeof(char16_t));
        return *this;
    }
    template <typename T>
    BufferBuilder& Put(std::size_t at, const T& value) {
        std::memcpy(bytes_.data() + at, &value, sizeof(value));
        return *this;
    }
    const std::vector<std::byte>& Bytes() const { return bytes_; }

private:
    std::vector<std::byte> bytes_;
};

/// Two records about one key. The path lies behind the first record:
///
///     0        8          48              112
///     | header | record A | path \A\Key   | record B: name -64 |
inline BufferBuilder TwoRecords() {
    return BufferBuilder(256)
        .First(8)
        .Record(8, 104, 40)
        .Text(48, std::u16string_view(u"\\A\\Key\0", 7))
        .Record(112, 0, -64);
}

}  // namespace zpregmon
