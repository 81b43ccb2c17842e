#include "intercept/trace_filter.h"

#include "driver/driver_state.h"
#include "intercept/references.h"

namespace zpregflt {

namespace {

/// Whether the path is the name, or ends in a backslash and the name.
bool NamesImage(const UNICODE_STRING& name, const UNICODE_STRING& path) {
    if (name.Length > path.Length) {
        return false;
    }
    const USHORT skipped = (path.Length - name.Length) / sizeof(WCHAR);
    if (skipped != 0 && path.Buffer[skipped - 1] != L'\\') {
        return false;
    }
    const UNICODE_STRING tail = {name.Length, name.Length, path.Buffer + skipped};
    return RtlCompareUnicodeString(&name, &tail, TRUE) == 0;
}

/// A process that the library does not know passes.
bool ProcessPasses(HANDLE processId) {
    if (State.TraceProcessId != 0) {
        return State.TraceProcessId == reinterpret_cast<ULONG_PTR>(processId);
    }
    if (State.TraceProcessName == nullptr) {
        return true;
    }
    ProcessRecordRef record;
    if (!NT_SUCCESS(ZPkPsGet(State.ProcessTracking, processId, record.Receive(), nullptr))) {
        return true;
    }
    return NamesImage(*State.TraceProcessName, record->ImagePath);
}

}  // namespace

bool TraceFilterMatch(HANDLE processId, OperationMask mask) {
    return ProcessPasses(processId) &&
           (State.TraceOperations == 0 || mask == 0 || (mask & State.TraceOperations) != 0);
}

}  // namespace zpregflt
