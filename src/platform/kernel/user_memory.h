// Probing the memory of user mode.
#pragma once

#include <cstddef>

namespace platform {

/// Whether every byte of the range can be read and written now. Changes nothing there.
bool IsWritableMemory(const void* address, std::size_t length);

}  // namespace platform
