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

/// Bytes that a verified block takes before and behind its contents.
inline constexpr std::size_t kLeadingZone = 16;
inline constexpr std::size_t kTrailingZone = 16;

/// Enters the block whose contents begin at `block`; its memory begins kLeadingZone before. Fills
/// the contents and the trailing zone.
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
void NoteCached(const char* routine, void* block);
void NoteTaken(void* block);

}  // namespace platform
