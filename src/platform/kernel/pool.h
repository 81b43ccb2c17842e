// The pool: what is allocated under which tag, and checks of blocks and freed blocks.
//
// While the verifier is on, every block has red zones and is known to a registry, contents start
// as 0xCD, and freed blocks rest in a quarantine filled with 0xDD before their memory is used
// again.
#pragma once

#include <wdm.h>

#include <cstddef>
#include <cstdint>
#include <vector>

namespace platform {

/// What is allocated under a tag right now.
struct TagUsage {
    std::uint32_t tag;
    std::size_t blocks;
    std::size_t bytes;
};

/// Every tag with blocks, in the order in which the tags were first used.
std::vector<TagUsage> ListPoolUsage();

/// Checks every live block's red zones and every block in quarantine; a violation if one was
/// written to. Does nothing while the verifier is off.
void CheckPool();

/// As ExAllocatePoolWithTag, but no planned fault applies: for routines that ask under their own
/// name.
void* NTAPI AllocatePool(POOL_TYPE type, std::size_t size, std::uint32_t tag);
/// `tag` 0: any.
void NTAPI FreePool(const char* routine, void* block, std::uint32_t tag);

}  // namespace platform
