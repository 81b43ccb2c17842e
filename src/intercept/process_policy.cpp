#include "intercept/process_policy.h"

#include "driver/control_codes.h"
#include "intercept/tracing.h"

namespace zpregflt {

namespace {

bool IsTrusted(const DriverState& state, const ProcessRecord& record, OperationMask traceBit) {
    if ((record.Flags & PROCESS_TRUSTED) == 0 || (state.Override & OVERRIDE_TRUSTED) != 0) {
        return false;
    }
    ZPRF_TRACE_FILTERED(TRACE_OPERATION, TRACE_LEVEL_INFORMATION, traceBit,
                        "process %p trusted, not monitored: %Z", PsGetCurrentProcessId(),
                        &record.ImagePath);
    return true;
}

ProcessContextRef NewProcessContext(const DriverState& state) {
    ProcessContextRef context(
        static_cast<ProcessContext*>(ZPkPsAllocateContext(state.ProcessTracking)));
    if (context) {
        context->Exemption = 0;
        context->Operations = ReadULongNoFence(&state.LoggedOperations);
        context->Cache = nullptr;
        KeInitializeGuardedMutex(&context->CacheLock);
    }
    return context;
}

/// Makes a context for the current process; another thread's wins if it comes first.
ProcessContextRef CreateProcessContext(const DriverState& state, OperationMask traceBit) {
    const HANDLE processId = PsGetCurrentProcessId();
    ProcessContextRef created = NewProcessContext(state);
    if (!created) {
        ZPRF_TRACE_FILTERED(TRACE_OPERATION, TRACE_LEVEL_WARNING, traceBit,
                            "process %p: no memory for its context", processId);
        return {};
    }
    ProcessContextRef existing;
    const NTSTATUS status = ZPkPsSetContext(processId, ZPK_SET_CONTEXT_KEEP_EXISTING, created.Get(),
                                            existing.ReceiveBlock());
    if (status == STATUS_SUCCESS) {
        return created;
    }
    if (status == ZPK_STATUS_CONTEXT_EXISTS && existing) {
        return existing;
    }
    ZPRF_TRACE_FILTERED(TRACE_OPERATION, TRACE_LEVEL_WARNING, traceBit,
                        "process %p: context not set, status %x", processId, status);
    return {};
}

void TraceExempt(const char* message, const ProcessRecord& record, OperationMask traceBit) {
    ZPRF_TRACE_FILTERED(TRACE_OPERATION, TRACE_LEVEL_INFORMATION, traceBit, message,
                        PsGetCurrentProcessId(), &record.ImagePath);
}

/// Checks the list and publishes the verdict together with the generation that it is for, which was
/// read before the check: a list that changes meanwhile is checked again next time, and a thread
/// never takes a check that has only begun for a verdict.
bool CheckExemption(const DriverState& state, ULONG generation, ProcessContext& context) {
    BOOLEAN exempt = FALSE;
    const NTSTATUS status = ZPkPeExemptCheck(state.Exemptions, PsGetCurrentProcessId(), &exempt);
    const bool applies =
        NT_SUCCESS(status) && exempt && (state.Override & OVERRIDE_EXEMPTIONS) == 0;
    ExemptionVerdict verdict = {};
    verdict.s.CheckedGeneration = generation;
    verdict.s.ExemptState = EXEMPT_CHECKED | (applies ? EXEMPT_YES : 0);
    InterlockedExchange64(&context.Exemption, verdict.Word);
    return applies;
}

bool IsExempt(const DriverState& state, const ProcessRecord& record, ProcessContext& context,
              OperationMask traceBit) {
    const auto generation = static_cast<ULONG>(ReadAcquire(&state.ExemptionGeneration));
    ExemptionVerdict verdict = {};
    verdict.Word = ReadNoFence64(&context.Exemption);
    if ((verdict.s.ExemptState & EXEMPT_CHECKED) != 0 &&
        verdict.s.CheckedGeneration == generation) {
        if ((verdict.s.ExemptState & EXEMPT_YES) == 0) {
            return false;
        }
        TraceExempt("process %p known exempt: %Z", record, traceBit);
        return true;
    }
    if (!CheckExemption(state, generation, context)) {
        return false;
    }
    TraceExempt("process %p found exempt: %Z", record, traceBit);
    return true;
}

}  // namespace

bool AcquireMonitoredProcess(const DriverState& state, OperationMask traceBit,
                             MonitoredProcess& process) {
    const HANDLE processId = PsGetCurrentProcessId();
    const NTSTATUS status = ZPkPsGet(state.ProcessTracking, processId, process.record.Receive(),
                                     process.context.ReceiveBlock());
    if (!NT_SUCCESS(status)) {
        ZPRF_TRACE_FILTERED(TRACE_OPERATION, TRACE_LEVEL_WARNING, traceBit,
                            "process %p: no record, status %x", processId, status);
        return false;
    }
    if (IsTrusted(state, *process.record, traceBit)) {
        return false;
    }
    if (!process.context) {
        process.context = CreateProcessContext(state, traceBit);
    }
    return process.context && !IsExempt(state, *process.record, *process.context, traceBit);
}

}  // namespace zpregflt
