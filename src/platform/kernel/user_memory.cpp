#include "platform/kernel/user_memory.h"

#include "platform/include/protected_access.h"

#include <sys/mman.h>
#include <unistd.h>

#include <cstdint>

namespace platform {

namespace {

// Faults pages in as a write would, without writing. Older C libraries do not name it.
#ifndef MADV_POPULATE_WRITE
#define MADV_POPULATE_WRITE 23
#endif

const std::uintptr_t kPageMask = static_cast<std::uintptr_t>(sysconf(_SC_PAGESIZE)) - 1;

bool PopulateForWrite(std::uintptr_t first, std::uintptr_t end) {
    const std::uintptr_t page = first & ~kPageMask;
    return madvise(reinterpret_cast<void*>(page), end - page, MADV_POPULATE_WRITE) == 0;
}

/// Kernels before 5.14 cannot tell whether memory is writable without writing to it.
bool CanPopulate() {
    static const bool can = [] {
        int local = 0;
        const auto address = reinterpret_cast<std::uintptr_t>(&local);
        return PopulateForWrite(address, address + sizeof local);
    }();
    return can;
}

bool IsReadableMemory(std::uintptr_t first, std::uintptr_t end) {
    for (std::uintptr_t byte = first; byte < end; byte = (byte | kPageMask) + 1) {
        char read;
        if (!PlatformCopyProtected(&read, reinterpret_cast<const void*>(byte), 1)) return false;
    }
    return true;
}

}  // namespace

bool IsWritableMemory(const void* address, std::size_t length) {
    const auto first = reinterpret_cast<std::uintptr_t>(address);
    const std::uintptr_t end = first + length;
    if (end < first) return false;
    if (length == 0) return true;
    return CanPopulate() ? PopulateForWrite(first, end) : IsReadableMemory(first, end);
}

}  // namespace platform
