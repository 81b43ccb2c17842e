// Event buffers as the client finds them in its own memory, and the blocks of the dump file.
#pragma once

#include <cstddef>
#include <cstdint>

namespace zpregflt {

/// Opens every buffer. It has the shape of the first fields of a record header, so that the chain
/// is walked from the buffer's first byte as if it were a record of type 0.
struct BufferHeader {
    std::uint32_t Type;  ///< 0
    /// Distance from the buffer's first byte to the first committed record; 0: none.
    std::int32_t NextOffset;
};
static_assert(sizeof(BufferHeader) == 8 && offsetof(BufferHeader, NextOffset) == 4);

/// The least that a client may lend, in bytes.
inline constexpr std::uint32_t kMinimumBufferSize = 0x10000;

/// Opens every block of a dump file; `Length` bytes of a buffer's image follow.
struct DumpBlockHeader {
    std::uint32_t Magic;  ///< kDumpBlockMagic
    std::uint32_t Length;
};
static_assert(sizeof(DumpBlockHeader) == 8);
inline constexpr std::uint32_t kDumpBlockMagic = 0x46474552;  // "REGF" in file order

}  // namespace zpregflt
