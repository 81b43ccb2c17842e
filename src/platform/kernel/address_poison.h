// Telling the address sanitizer which memory nobody may touch; nothing in other builds.
#pragma once

#include <cstddef>

#if defined(__SANITIZE_ADDRESS__)
#include <sanitizer/asan_interface.h>
#endif

namespace platform {

#if defined(__SANITIZE_ADDRESS__)
inline constexpr bool kAddressSanitizer = true;
inline void Poison(const void* memory, std::size_t size) {
    __asan_poison_memory_region(memory, size);
}
inline void Unpoison(const void* memory, std::size_t size) {
    __asan_unpoison_memory_region(memory, size);
}
#else
inline constexpr bool kAddressSanitizer = false;
inline void Poison(const void*, std::size_t) {}
inline void Unpoison(const void*, std::size_t) {}
#endif

}  // namespace platform
