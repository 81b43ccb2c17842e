// Accounting of pool memory by tag; always on.
#pragma once

#include "platform/kernel/pool.h"

namespace platform {

void CountAllocation(std::uint32_t tag, std::size_t size);
void CountFree(std::uint32_t tag, std::size_t size);
/// Blocks under all tags.
std::size_t CountAllBlocks();

}  // namespace platform
