// The library's pool allocations.
#pragma once

#include <wdm.h>

namespace zpklib {

/// NonPagedPoolNx where the system has it (version 6.2 and later); set when the library starts.
extern POOL_TYPE nonPagedPool;

/// A zeroed structure with `extra` further bytes behind it, or null. Freed with ExFreePoolWithTag.
template <typename T>
T* AllocateZeroed(POOL_TYPE type, ULONG tag, SIZE_T extra = 0) {
    void* memory = ExAllocatePoolWithTag(type, sizeof(T) + extra, tag);
    if (memory != nullptr) {
        RtlZeroMemory(memory, sizeof(T) + extra);
    }
    return static_cast<T*>(memory);
}

}  // namespace zpklib
