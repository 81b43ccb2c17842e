#include "intercept/tracing.h"

namespace zpregflt {

namespace trace_detail {

constinit volatile ULONG Enabled = 0;

}  // namespace trace_detail

namespace {

constinit REGHANDLE registration = 0;

constexpr ULONG kFlags =
    TRACE_DRIVER | TRACE_BUFFER | TRACE_OPERATION | TRACE_CONTROL | TRACE_CAPTURE;

void NTAPI OnEnable(LPCGUID, ULONG controlCode, UCHAR level, ULONGLONG matchAnyKeyword, ULONGLONG,
                    PVOID, PVOID context) {
    switch (controlCode) {
        case EVENT_CONTROL_CODE_ENABLE_PROVIDER:
            WriteULongNoFence(&trace_detail::Enabled,
                              ULONG{level} << 24 | (static_cast<ULONG>(matchAnyKeyword) & kFlags));
            break;
        case EVENT_CONTROL_CODE_DISABLE_PROVIDER:
            WriteULongNoFence(&trace_detail::Enabled, 0);
            break;
        default:
            return;
    }
    reinterpret_cast<TraceControlled*>(context)();
}

template <std::size_t Size>
EVENT_DATA_DESCRIPTOR Literal(const WCHAR (&text)[Size]) {
    return trace_detail::Block(text, (Size - 1) * sizeof(WCHAR));
}

template <typename Character>
ULONG TerminatedLength(const Character* text) {
    ULONG length = 0;
    while (text[length] != 0) {
        ++length;
    }
    return length;
}

}  // namespace

namespace trace_detail {

EVENT_DATA_DESCRIPTOR Argument(const UNICODE_STRING* const& text) {
    if (text == nullptr || text->Buffer == nullptr) {
        return Literal(L"NULL");
    }
    return Block(text->Buffer, text->Length);
}

EVENT_DATA_DESCRIPTOR Argument(const ANSI_STRING* const& text) {
    if (text == nullptr || text->Buffer == nullptr) {
        return Argument("NULL");
    }
    return Block(text->Buffer, text->Length);
}

EVENT_DATA_DESCRIPTOR Argument(const char* const& text) {
    const char* const shown = text != nullptr ? text : "NULL";
    return Block(shown, TerminatedLength(shown));
}

EVENT_DATA_DESCRIPTOR Argument(const WCHAR* const& text) {
    if (text == nullptr) {
        return Literal(L"NULL");
    }
    return *text != 0 ? Block(text, TerminatedLength(text) * sizeof(WCHAR)) : Literal(L"<NULL>");
}

EVENT_DATA_DESCRIPTOR Argument(const RawBytes& bytes) {
    return bytes.data != nullptr ? Block(bytes.data, bytes.size) : Argument("NULL");
}

void Write(ULONG flag, UCHAR level, EVENT_DATA_DESCRIPTOR* blocks, ULONG count) {
    EVENT_DESCRIPTOR descriptor = {};
    descriptor.Level = level;
    descriptor.Keyword = flag;
    EtwWrite(registration, &descriptor, nullptr, count, blocks);
}

}  // namespace trace_detail

void StartTracing(TraceControlled* controlled) {
    if (!NT_SUCCESS(EtwRegister(&kTraceProviderId, OnEnable, reinterpret_cast<PVOID>(controlled),
                                &registration))) {
        registration = 0;
    }
}

void StopTracing() {
    if (registration != 0) {
        EtwUnregister(registration);
        registration = 0;
    }
    WriteULongNoFence(&trace_detail::Enabled, 0);
}

}  // namespace zpregflt
