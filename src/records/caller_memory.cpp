#include "records/caller_memory.h"

#if !defined(_WIN32)
#include <protected_access.h>
#endif

namespace zpregflt {

#if defined(_WIN32)

namespace {

// The compiler covers calls in a guarded block, not plain accesses: the access is in a callee.
[[gnu::noinline]] void Copy(PVOID to, const void* from, SIZE_T size) {
    memcpy(to, from, size);
}

}  // namespace

bool CopyFromCaller(PVOID to, const void* from, SIZE_T size) {
    __try {
        Copy(to, from, size);
        return true;
    } __except (1) {
        return false;
    }
}

#else

bool CopyFromCaller(PVOID to, const void* from, SIZE_T size) {
    return PlatformCopyProtected(to, from, size);
}

#endif

Comparison CompareWithCaller(const void* known, const void* from, SIZE_T size) {
    UCHAR chunk[256];
    const auto* expected = static_cast<const UCHAR*>(known);
    const auto* next = static_cast<const UCHAR*>(from);
    while (size != 0) {
        const SIZE_T step = size < sizeof(chunk) ? size : sizeof(chunk);
        if (!CopyFromCaller(chunk, next, step)) {
            return Comparison::kFault;
        }
        if (memcmp(chunk, expected, step) != 0) {
            return Comparison::kDifferent;
        }
        expected += step;
        next += step;
        size -= step;
    }
    return Comparison::kEqual;
}

bool CopyStringFromCaller(PVOID to, PCUNICODE_STRING from, USHORT length) {
    const bool readable = CopyFromCaller(to, from->Buffer, length);
    auto* const end = static_cast<UCHAR*>(to) + (readable ? length : 0);
    constexpr WCHAR kTerminator = 0;
    RtlCopyMemory(end, &kTerminator, sizeof(kTerminator));
    return readable;
}

}  // namespace zpregflt
