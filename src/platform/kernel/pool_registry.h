// The verifier's books of pool blocks: which are live, which were freed lately, and what their
// surroundings must look like.
#pragma once

#include <wdm.h>

#include <cstddef>
#include <cstdint>

namespace platform {

struct PoolBlock {
    std::size_t size = 0;
    std::uint32_t tag = 0;
    POOL_TYPE type = NonPagedPool;
    bool cached = false;  ///< resting in a lookaside list
};

/// Stands directly before each block's contents: what freeing and accounting need when the verifier
/// is off, and a red zone when it is on.
struct PoolHeader {
    std::size_t size;
    std::uint32_t tag;
    std::uint16_t type;
    std::uint16_t mark;

    bool operator==(const PoolHeader&) const = default;
};
static_assert(sizeof(PoolHeader) == 16, "keeps the contents aligned");

inline constexpr std::uint16_t kPlainMark = 0x6C50;
inline constexpr std::uint16_t kVerifiedMark = 0x6656;

/// Bytes that a verified block takes behind its contents.
inline constexpr std::size_t kTrailingZone = 16;

/// Enters the block whose contents begin at `block`, and fills its header, contents and red zone.
void EnterBlock(void* block, const PoolBlock& facts);

/// Whether the address is a live verified block; its facts.
bool FindBlock(const void* block, PoolBlock& facts);

std::size_t CountVerifiedBlocks();

/// Moves a live block to the quarantine, after checking it. A violation when it is written over,
/// was freed already, rests in a lookaside list, or has another tag (`tag` 0: any). Returns false
/// when the registry never saw the address.
bool RetireBlock(const char* routine, void* block, std::uint32_t tag, PoolBlock& facts);

/// A lookaside list takes the block in, or gives it out. Addresses that are no pool blocks (lists
/// can have their own allocation routines) are passed over.
void NTAPI NoteCached(const char* routine, void* block);
void NTAPI NoteTaken(void* block);

}  // namespace platform
