#include "driver/configuration.h"

#include "driver/driver_state.h"
#include "intercept/references.h"
#include "intercept/tracing.h"

namespace zpregflt {

namespace {

struct ConfigRow {
    UNICODE_STRING subkey;
    UNICODE_STRING value;
    ULONG type;
    volatile void* target;  ///< field of State: a number or a PUNICODE_STRING
    ULONG defaultValue;     ///< of a number; a string's default is null
    const char* description;
};

constexpr UNICODE_STRING kTrace = LiteralString(L"Trace");
constexpr UNICODE_STRING kReport = LiteralString(L"Report");
constexpr UNICODE_STRING kProcess = LiteralString(L"Process");
constexpr UNICODE_STRING kOperations = LiteralString(L"Operations");
constexpr UNICODE_STRING kOriginal = LiteralString(L"Original");
constexpr UNICODE_STRING kCaptureMaxSize = LiteralString(L"CaptureMaxSize");
constexpr UNICODE_STRING kOverride = LiteralString(L"Override");
constexpr UNICODE_STRING kParameters = LiteralString(L"Parameters");

// The first two rows read one value: the one whose type matches takes it.
// clang-format off
constinit const ConfigRow ConfigTable[] = {
    {kTrace, kProcess, REG_DWORD, &State.TraceProcessId, 0, "Trace is enabled for only process Id"},
    {kTrace, kProcess, REG_SZ, &State.TraceProcessName, 0, "Trace is enabled for only process"},
    {kTrace, kOperations, REG_DWORD, &State.TraceOperations, 0x17, "Trace is enabled for operations"},
    {kReport, kOriginal, REG_DWORD, &State.ReportOriginal, 0, "Reporting original value data"},
    {kReport, kCaptureMaxSize, REG_DWORD, &State.CaptureMaxSize, 0xFFFFFFFF, "Maximum value data capture size (in bytes)"},
    {kReport, kOverride, REG_DWORD, &State.Override, 0, "Override policy"},
    {kReport, kOperations, REG_DWORD, &State.ReportOperations, 0, "Additional logged operations"},
};
// clang-format on

class KeyHandle {
public:
    KeyHandle() = default;
    ~KeyHandle() {
        if (handle_ != nullptr) {
            ZwClose(handle_);
        }
    }
    KeyHandle(const KeyHandle&) = delete;
    KeyHandle& operator=(const KeyHandle&) = delete;

    /// Opens `name` below `root` for queries.
    NTSTATUS Open(HANDLE root, const UNICODE_STRING& name) {
        UNICODE_STRING nameCopy = name;
        OBJECT_ATTRIBUTES attributes;
        InitializeObjectAttributes(&attributes, &nameCopy, OBJ_KERNEL_HANDLE, root, nullptr);
        return ZwOpenKey(&handle_, KEY_QUERY_VALUE, &attributes);
    }
    HANDLE Get() const { return handle_; }
    HANDLE Detach() { return std::exchange(handle_, nullptr); }

private:
    HANDLE handle_ = nullptr;
};

/// A value as the registry returns it, behind room for the counted string that may come to describe
/// it: the two must not overlap.
struct ValueBlock {
    UNICODE_STRING text;
    KEY_VALUE_PARTIAL_INFORMATION value;
};
using ValueBlockRef = PoolBlock<ValueBlock, kParameterTag>;

ValueBlockRef QueryValue(HANDLE key, const UNICODE_STRING& name) {
    UNICODE_STRING nameCopy = name;
    ULONG size = 0;
    if (ZwQueryValueKey(key, &nameCopy, KeyValuePartialInformation, nullptr, 0, &size) !=
        STATUS_BUFFER_TOO_SMALL) {
        return {};
    }
    ValueBlockRef block(static_cast<ValueBlock*>(ExAllocatePoolWithTag(
        PagedPool, SIZE_T{size} + offsetof(ValueBlock, value), kParameterTag)));
    if (block && !NT_SUCCESS(ZwQueryValueKey(key, &nameCopy, KeyValuePartialInformation,
                                             &block->value, size, &size))) {
        block.Reset();
    }
    return block;
}

/// The upper half of a 64-bit target stays as it was cleared.
void StoreNumber(const ConfigRow& row, ULONG number) {
    WriteULongNoFence(static_cast<volatile ULONG*>(row.target), number);
}

PUNICODE_STRING volatile& StringTarget(const ConfigRow& row) {
    return *static_cast<PUNICODE_STRING volatile*>(row.target);
}

void ApplyDefault(const ConfigRow& row) {
    if (row.type == REG_DWORD) {
        StoreNumber(row, row.defaultValue);
        return;
    }
    PUNICODE_STRING volatile& target = StringTarget(row);
    if (target != nullptr) {
        ExFreePoolWithTag(target, kParameterTag);
        target = nullptr;
    }
}

/// The text is the data less its last two bytes, the terminator. Data too short for one, or too
/// long for a counted string, is treated as a value of another type.
void TakeString(const ConfigRow& row, ValueBlockRef block) {
    const ULONG length = block->value.DataLength;
    if (length < sizeof(WCHAR) || length > 0xFFFF + sizeof(WCHAR)) {
        return;
    }
    const auto textLength = static_cast<USHORT>(length - sizeof(WCHAR));
    block->text = {textLength, textLength, reinterpret_cast<PWSTR>(block->value.Data)};
    ZPRF_TRACE(TRACE_DRIVER, TRACE_LEVEL_VERBOSE, "%s: %Z", row.description, &block->text);
    StringTarget(row) = &block.Detach()->text;
}

/// Data too short for a number is treated as a value of another type.
void TakeNumber(const ConfigRow& row, const KEY_VALUE_PARTIAL_INFORMATION& value) {
    if (value.DataLength < sizeof(ULONG)) {
        return;
    }
    ULONG number = 0;
    RtlCopyMemory(&number, value.Data, sizeof(number));
    StoreNumber(row, number);
    if (number != 0) {
        ZPRF_TRACE(TRACE_DRIVER, TRACE_LEVEL_VERBOSE, "%s: %u", row.description, number);
    }
}

void ReadRow(const ConfigRow& row) {
    ApplyDefault(row);
    KeyHandle subkey;
    if (!NT_SUCCESS(subkey.Open(State.ParametersKey, row.subkey))) {
        return;
    }
    ValueBlockRef block = QueryValue(subkey.Get(), row.value);
    if (!block || block->value.Type != row.type) {
        return;
    }
    if (row.type == REG_SZ) {
        TakeString(row, std::move(block));
    } else {
        TakeNumber(row, block->value);
    }
}

}  // namespace

void ReadParameters() {
    if (State.ParametersKey == nullptr) {
        return;
    }
    for (const ConfigRow& row : ConfigTable) {
        ReadRow(row);
    }
    WriteULongNoFence(&State.LoggedOperations,
                      ReadULongNoFence(&State.LoggedOperations) | State.ReportOperations);
}

void OpenParametersKey(PUNICODE_STRING registryPath) {
    KeyHandle service;
    KeyHandle parameters;
    if (NT_SUCCESS(service.Open(nullptr, *registryPath)) &&
        NT_SUCCESS(parameters.Open(service.Get(), kParameters))) {
        State.ParametersKey = parameters.Detach();
    }
}

}  // namespace zpregflt
