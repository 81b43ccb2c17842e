// The verbose trace of one operation: who did what to which key.
#pragma once

#include "intercept/key_path.h"
#include "intercept/tracing.h"
#include "records/record_format.h"

namespace zpregflt {

namespace trace_detail {

/// Whether such a trace about the current process and this operation is wanted.
inline bool OperationTraced(OperationMask mask) {
    return TraceEnabled(TRACE_OPERATION, TRACE_LEVEL_INFORMATION) &&
           TraceFilterMatch(PsGetCurrentProcessId(), mask);
}

template <typename... Arguments>
[[gnu::noinline, gnu::cold]] void EmitOperation(PVOID keyObject, const char* message,
                                                Arguments... arguments) {
    KeyPath path;
    if (NT_SUCCESS(BuildKeyPath(nullptr, keyObject, path))) {
        Emit(TRACE_OPERATION, TRACE_LEVEL_INFORMATION, message, PsGetCurrentProcessId(), keyObject,
             &path.Text(), arguments...);
    }
}

}  // namespace trace_detail

/// Emits process id, key object and the key's path, and then the arguments. The path is fetched for
/// the trace alone; without one there is no trace.
template <typename... Arguments>
void TraceOperation(PVOID keyObject, OperationMask mask, const char* message,
                    Arguments... arguments) {
    if (trace_detail::OperationTraced(mask)) [[unlikely]] {
        trace_detail::EmitOperation(keyObject, message, arguments...);
    }
}

}  // namespace zpregflt
