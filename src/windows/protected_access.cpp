// Copying from and to memory that may fault: structured exception handling.
#include <protected_access.h>
#include <wdm.h>

namespace {

template <typename T>
void CopyValue(void* to, const void* from) {
    *static_cast<volatile T*>(to) = *static_cast<const volatile T*>(from);
}

// The compiler guards calls in a guarded block, not plain accesses: all of them are in a callee.
[[gnu::noinline]] void Copy(void* to, const void* from, SIZE_T size) {
    switch (size) {
        case 1:
            return CopyValue<UCHAR>(to, from);
        case 2:
            return CopyValue<USHORT>(to, from);
        case 4:
            return CopyValue<ULONG>(to, from);
        case 8:
            return CopyValue<ULONGLONG>(to, from);
        default:
            memcpy(to, from, size);
    }
}

}  // namespace

extern "C" bool NTAPI PlatformCopyProtected(void* to, const void* from, SIZE_T size) {
    __try {
        Copy(to, from, size);
        return true;
    } __except (1) {
        return false;
    }
}
