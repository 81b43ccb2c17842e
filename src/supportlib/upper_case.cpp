#include "supportlib/upper_case.h"

#include "supportlib/driver_entry.h"

namespace zpklib {

namespace {
constexpr ULONG kCodeUnits = 0x10000;
}

constinit WCHAR* upperCase = nullptr;

NTSTATUS CopyUpperCaseTable() {
    upperCase = static_cast<WCHAR*>(
        ExAllocatePoolWithTag(PagedPool, kCodeUnits * sizeof(WCHAR), kUpperCaseTag));
    if (upperCase == nullptr) {
        return STATUS_INSUFFICIENT_RESOURCES;
    }
    for (ULONG unit = 0; unit < kCodeUnits; ++unit) {
        upperCase[unit] = RtlUpcaseUnicodeChar(static_cast<WCHAR>(unit));
    }
    return STATUS_SUCCESS;
}

void FreeUpperCaseTable() {
    ExFreePoolWithTag(upperCase, kUpperCaseTag);
    upperCase = nullptr;
}

}  // namespace zpklib
