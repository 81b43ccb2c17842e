#include "channel/value_capture.h"

#include "intercept/key_path.h"
#include "intercept/tracing.h"
#include "records/caller_name.h"

namespace zpregflt {

namespace {

PreviousValue ReadValue(HANDLE key, UNICODE_STRING name) {
    ULONG size = 0;
    if (ZwQueryValueKey(key, &name, KeyValuePartialInformation, nullptr, 0, &size) !=
        STATUS_BUFFER_TOO_SMALL) {
        return {};
    }
    PreviousValue value(static_cast<PKEY_VALUE_PARTIAL_INFORMATION>(
        ExAllocatePoolWithTag(PagedPool, size, kPreviousValueTag)));
    if (value && !NT_SUCCESS(ZwQueryValueKey(key, &name, KeyValuePartialInformation, value.Get(),
                                             size, &size))) {
        value.Reset();
    }
    return value;
}

void TraceUnnamed(PVOID keyObject, NTSTATUS status) {
    ZPRF_TRACE(TRACE_OPERATION, TRACE_LEVEL_INFORMATION, "key %p: path unavailable, status %x",
               keyObject, status);
    // A key may be without a name, but one that has one should give it.
    if (status != STATUS_INVALID_PARAMETER) {
        ZPRF_TRACE(TRACE_OPERATION, TRACE_LEVEL_WARNING, "key %p: path not read, status %x",
                   keyObject, status);
    }
}

}  // namespace

ULONG CapturedSize(const DriverState& state, ULONG size) {
    const ULONG limit = ReadULongNoFence(&state.CaptureMaxSize);
    return limit < size ? limit : size;
}

PreviousValue QueryCurrentValue(PVOID keyObject, PCUNICODE_STRING valueName) {
    // The registry takes it for the kernel's own, and reads it without protection.
    const CallerName readable(valueName);
    if (!readable) {
        return {};
    }
    PoolBlock<OBJECT_NAME_INFORMATION, kKeyPathTag> name;
    NTSTATUS status = QueryObjectName(keyObject, 0, name);
    if (!NT_SUCCESS(status)) {
        TraceUnnamed(keyObject, status);
        return {};
    }
    OBJECT_ATTRIBUTES attributes;
    InitializeObjectAttributes(&attributes, &name->Name, OBJ_KERNEL_HANDLE, nullptr, nullptr);
    HANDLE key = nullptr;
    status = ZwOpenKey(&key, KEY_QUERY_VALUE, &attributes);
    if (!NT_SUCCESS(status)) {
        return {};
    }
    PreviousValue value = ReadValue(key, readable.Text());
    ZwClose(key);
    return value;
}

}  // namespace zpregflt
