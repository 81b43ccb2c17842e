#include "channel/value_capture.h"

#include "intercept/key_path.h"
#include "intercept/tracing.h"

namespace zpregflt {

namespace {

PreviousValue ReadValue(HANDLE key, PUNICODE_STRING valueName) {
    ULONG size = 0;
    if (ZwQueryValueKey(key, valueName, KeyValuePartialInformation, nullptr, 0, &size) !=
        STATUS_BUFFER_TOO_SMALL) {
        return {};
    }
    PreviousValue value(static_cast<PKEY_VALUE_PARTIAL_INFORMATION>(
        ExAllocatePoolWithTag(PagedPool, size, kPreviousValueTag)));
    if (value && !NT_SUCCESS(ZwQueryValueKey(key, valueName, KeyValuePartialInformation,
                                             value.Get(), size, &size))) {
        value.Reset();
    }
    return value;
}

}  // namespace

ULONG CapturedSize(const DriverState& state, ULONG size) {
    const ULONG limit = ReadULongNoFence(&state.CaptureMaxSize);
    return limit < size ? limit : size;
}

PreviousValue QueryCurrentValue(PVOID keyObject, PUNICODE_STRING valueName) {
    PoolBlock<OBJECT_NAME_INFORMATION, kKeyPathTag> name;
    NTSTATUS status = QueryObjectName(keyObject, 0, name);
    if (!NT_SUCCESS(status)) {
        ZPRF_TRACE(TRACE_OPERATION, TRACE_LEVEL_INFORMATION, "key %p: path unavailable, status %x",
                   keyObject, status);
        return {};
    }
    OBJECT_ATTRIBUTES attributes;
    InitializeObjectAttributes(&attributes, &name->Name, OBJ_KERNEL_HANDLE, nullptr, nullptr);
    HANDLE key = nullptr;
    status = ZwOpenKey(&key, KEY_QUERY_VALUE, &attributes);
    if (!NT_SUCCESS(status)) {
        return {};
    }
    PreviousValue value = ReadValue(key, valueName);
    ZwClose(key);
    return value;
}

}  // namespace zpregflt
