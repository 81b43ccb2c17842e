#include "platform/kernel/caller_memory.h"

namespace platform {

NTSTATUS CapturedString::Capture(const CallerMemory& memory, PCUNICODE_STRING source) {
    descriptor_ = {0, sizeof(inline_), inline_};
    if (source == nullptr) return STATUS_SUCCESS;
    UNICODE_STRING given;
    if (!memory.Load(given, source)) return STATUS_ACCESS_VIOLATION;
    if (given.Length % sizeof(WCHAR) != 0) return STATUS_OBJECT_NAME_INVALID;
    if (given.Length > sizeof(inline_)) {
        large_ = std::make_unique_for_overwrite<WCHAR[]>(given.Length / sizeof(WCHAR));
        descriptor_ = {0, given.Length, large_.get()};
    }
    if (!memory.Copy(descriptor_.Buffer, given.Buffer, given.Length)) {
        return STATUS_ACCESS_VIOLATION;
    }
    descriptor_.Length = given.Length;
    return STATUS_SUCCESS;
}

void CapturedString::TrimNulls() {
    while (descriptor_.Length != 0 &&
           descriptor_.Buffer[descriptor_.Length / sizeof(WCHAR) - 1] == 0) {
        descriptor_.Length -= sizeof(WCHAR);
    }
}

}  // namespace platform

extern "C" {

// As on Windows; a process of the host has no memory beyond, so that everything is user memory.
ULONG_PTR MmUserProbeAddress = 0x7FFF'FFFF'0000;

}  // extern "C"
