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
    PVOID target;  ///< field of State: a number of `targetSize` bytes, or a PUNICODE_STRING
    SIZE_T targetSize;
    ULONG64 defaultValue;  ///< of a number; a string's default is null
    const char* description;
};

template <typename T>
constexpr ConfigRow Number(UNICODE_STRING subkey, UNICODE_STRING value, T& target,
                           ULONG64 defaultValue, const char* description) {
    return {subkey,    value,        REG_DWORD,  const_cast<std::remove_cv_t<T>*>(&target),
            sizeof(T), defaultValue, description};
}

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
    Number(kTrace, kProcess, State.TraceProcessId, 0, "Trace is enabled for only process Id"),
    {kTrace, kProcess, REG_SZ, &State.TraceProcessName, 0, 0, "Trace is enabled for only process"},
    Number(kTrace, kOperations, State.TraceOperations, 0x17, "Trace is enabled for operations"),
    Number(kReport, kOriginal, State.ReportOriginal, 0, "Reporting original value data"),
    Number(kReport, kCaptureMaxSize, State.CaptureMaxSize, 0xFFFFFFFF, "Maximum value data capture size (in bytes)"),
    Number(kReport, kOverride, State.Override, 0, "Override policy"),
    Number(kReport, kOperations, State.ReportOperations, 0, "Additional logged operations"),
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

void StoreNumber(const ConfigRow& row, ULONG number) {
    if (row.targetSize == sizeof(ULONG64)) {
        *static_cast<ULONG64*>(row.target) = number;
    } else {
        WriteULongNoFence(static_cast<ULONG*>(row.target), number);
    }
}

void ApplyDefault(const ConfigRow& row) {
    if (row.type == REG_DWORD) {
        StoreNumber(row, static_cast<ULONG>(row.defaultValue));
        return;
    }
    auto* const target = static_cast<PUNICODE_STRING*>(row.target);
    if (*target != nullptr) {
        ExFreePoolWithTag(*target, kParameterTag);
        *target = nullptr;
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
    *static_cast<PUNICODE_STRING*>(row.target) = &block.Detach()->text;
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
