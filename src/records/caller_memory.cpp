#include "records/caller_memory.h"

#include <protected_access.h>

namespace zpregflt {

bool CopyFromCaller(PVOID to, const void* from, SIZE_T size) {
    return PlatformCopyProtected(to, from, size);
}

bool IsUserMemory(const void* start, SIZE_T size) {
    const auto first = reinterpret_cast<ULONG_PTR>(start);
    return size <= MmUserProbeAddress && first <= MmUserProbeAddress - size;
}

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

bool ReadString(PCUNICODE_STRING from, UNICODE_STRING& text) {
    text = {};
    UNICODE_STRING read;
    if (!ReadCaller(from, read)) {
        return false;
    }
    text = read;
    text.Length -= text.Length % sizeof(WCHAR);
    return true;
}

bool CopyStringFromCaller(PVOID to, PCUNICODE_STRING from, USHORT length) {
    const bool readable = CopyFromCaller(to, from->Buffer, length);
    auto* const end = static_cast<UCHAR*>(to) + (readable ? length : 0);
    constexpr WCHAR kTerminator = 0;
    RtlCopyMemory(end, &kTerminator, sizeof(kTerminator));
    return readable;
}

}  // namespace zpregflt
