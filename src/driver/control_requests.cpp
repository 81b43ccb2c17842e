#include "driver/control_requests.h"

#include <ntifs.h>

#include "channel/memory.h"
#include "driver/control_codes.h"
#include "driver/driver_state.h"
#include "driver/exemption_update.h"
#include "intercept/references.h"
#include "intercept/tracing.h"

namespace zpregflt {

namespace {

constexpr ULONG TransferType(ULONG controlCode) {
    return controlCode & 3;
}

NTSTATUS CheckSender(ULONG controlCode) {
    ProcessRecordRef sender;
    const NTSTATUS status =
        ZPkPsGet(State.ProcessTracking, PsGetCurrentProcessId(), sender.Receive(), nullptr);
    if (!NT_SUCCESS(status)) {
        return status;
    }
    if ((controlCode & kControlCodeBit) != 0 && (sender->Flags & PROCESS_TRUSTED) == 0) {
        ZPRF_TRACE(TRACE_CONTROL, TRACE_LEVEL_WARNING, "not trusted: %Z", &sender->ImagePath);
        return STATUS_UNSUCCESSFUL;
    }
    return STATUS_SUCCESS;
}

/// Attaches the request's context and locks the caller's output buffer into it.
NTSTATUS LockOutputBuffer(WDFREQUEST request) {
    PVOID buffer = nullptr;
    size_t length = 0;
    NTSTATUS status = WdfRequestRetrieveUnsafeUserOutputBuffer(request, 0, &buffer, &length);
    if (!NT_SUCCESS(status)) {
        return status;
    }
    if (buffer == nullptr) {
        return STATUS_INVALID_PARAMETER;
    }
    WDF_OBJECT_ATTRIBUTES attributes;
    WDF_OBJECT_ATTRIBUTES_INIT(&attributes);
    attributes.ContextTypeInfo = &WDF_ZPRF_REQUEST_CONTEXT_TYPE_INFO;
    PVOID context = nullptr;
    status = WdfObjectAllocateContext(request, &attributes, &context);
    if (!NT_SUCCESS(status)) {
        return status;
    }
    return WdfRequestProbeAndLockUserBufferForWrite(
        request, buffer, length, &static_cast<ZPRF_REQUEST_CONTEXT*>(context)->Memory);
}

NTSTATUS PrepareControlRequest(WDFREQUEST request, ULONG controlCode) {
    const NTSTATUS status = CheckSender(controlCode);
    if (!NT_SUCCESS(status) || TransferType(controlCode) != METHOD_NEITHER) {
        return status;
    }
    return LockOutputBuffer(request);
}

/// Comes before the completion: after it the request is no longer the driver's.
void TraceOutcome(WDFREQUEST request, ULONG controlCode, NTSTATUS status) {
    ZPRF_TRACE(TRACE_CONTROL, TRACE_LEVEL_VERBOSE, "request %p code %x, status %x", request,
               controlCode, status);
}

/// Lends the buffer to the pool and parks the request. The reference taken with the buffer keeps it
/// from being filled and delivered before its request is in the queue.
void ParkBufferRequest(WDFREQUEST request) {
    EventBuffer* buffer = nullptr;
    NTSTATUS status = MemAddBuffer(request, nullptr, 0, &buffer);
    if (!NT_SUCCESS(status)) {
        TraceOutcome(request, IOCTL_ZPRF_GET_BUFFER, status);
        WdfRequestComplete(request, status);
        return;
    }
    status = WdfRequestForwardToIoQueue(request, State.BufferQueue);
    if (!NT_SUCCESS(status)) {
        TraceOutcome(request, IOCTL_ZPRF_GET_BUFFER, status);
        MemCancelBuffer(request, status);
    }
    MemRelease(buffer);
}

NTSTATUS RetrieveNumber(WDFREQUEST request, ULONG* number) {
    PVOID input = nullptr;
    const NTSTATUS status =
        WdfRequestRetrieveInputBuffer(request, sizeof(*number), &input, nullptr);
    if (NT_SUCCESS(status)) {
        RtlCopyMemory(number, input, sizeof(*number));
    }
    return status;
}

NTSTATUS ChangeExemptions(WDFREQUEST request, bool remove) {
    PVOID input = nullptr;
    size_t length = 0;
    const NTSTATUS status =
        WdfRequestRetrieveInputBuffer(request, sizeof(ExemptionRequest), &input, &length);
    return NT_SUCCESS(status) ? UpdateExemptions(input, length, remove) : status;
}

NTSTATUS RemoveAllExemptions() {
    ZPkPeExemptRemoveAll(State.Exemptions);
    InterlockedIncrement(&State.ExemptionGeneration);
    return STATUS_SUCCESS;
}

NTSTATUS SetDumpFile(WDFREQUEST request) {
    ULONG handle = 0;
    const NTSTATUS status = RetrieveNumber(request, &handle);
    // The handle is one of the sender's: the parallel queue presents a request in the sender's
    // thread, which has come straight from IoInCallerContext.
    return NT_SUCCESS(status) ? MemSetDumpFile(reinterpret_cast<HANDLE>(ULONG_PTR{handle}))
                              : status;
}

NTSTATUS SetNumber(WDFREQUEST request, const char* name, volatile ULONG* setting) {
    ULONG number = 0;
    const NTSTATUS status = RetrieveNumber(request, &number);
    if (NT_SUCCESS(status)) {
        ZPRF_TRACE(TRACE_CONTROL, TRACE_LEVEL_INFORMATION, "%s: from %x to %x", name,
                   ReadULongNoFence(setting), number);
        WriteULongNoFence(setting, number);
    }
    return status;
}

/// Only the low-order byte of the setting is the flag.
NTSTATUS SetReportOriginal(WDFREQUEST request) {
    ULONG number = 0;
    const NTSTATUS status = RetrieveNumber(request, &number);
    if (NT_SUCCESS(status)) {
        auto* const flag = reinterpret_cast<volatile UCHAR*>(&State.ReportOriginal);
        ZPRF_TRACE(TRACE_CONTROL, TRACE_LEVEL_INFORMATION, "report original data: from %s to %s",
                   ReadUCharNoFence(flag) != 0 ? "Yes" : "No", number != 0 ? "Yes" : "No");
        WriteUCharNoFence(flag, number != 0 ? 1 : 0);
    }
    return status;
}

NTSTATUS Flush() {
    MemFlush();
    return STATUS_SUCCESS;
}

NTSTATUS RefuseUnknown(ULONG controlCode) {
    ZPRF_TRACE(TRACE_CONTROL, TRACE_LEVEL_WARNING, "unknown control code %x", controlCode);
    return STATUS_INVALID_DEVICE_REQUEST;
}

/// Every request but the buffer request: carried out at once.
NTSTATUS CarryOut(WDFREQUEST request, ULONG controlCode) {
    switch (controlCode) {
        case IOCTL_ZPRF_EXEMPT_ADD:
            return ChangeExemptions(request, false);
        case IOCTL_ZPRF_EXEMPT_REMOVE:
            return ChangeExemptions(request, true);
        case IOCTL_ZPRF_EXEMPT_REMOVE_ALL:
            return RemoveAllExemptions();
        case IOCTL_ZPRF_SET_DUMP_FILE:
            return SetDumpFile(request);
        case IOCTL_ZPRF_SET_LOGGED_OPERATIONS:
            return SetNumber(request, "logged operations", &State.LoggedOperations);
        case IOCTL_ZPRF_SET_CAPTURE_MAX_SIZE:
            return SetNumber(request, "capture limit", &State.CaptureMaxSize);
        case IOCTL_ZPRF_SET_REPORT_ORIGINAL:
            return SetReportOriginal(request);
        case IOCTL_ZPRF_FLUSH:
            return Flush();
        default:
            return RefuseUnknown(controlCode);
    }
}

}  // namespace

void NTAPI IoInCallerContext(WDFDEVICE device, WDFREQUEST request) {
    WDF_REQUEST_PARAMETERS parameters;
    WDF_REQUEST_PARAMETERS_INIT(&parameters);
    WdfRequestGetParameters(request, &parameters);
    NTSTATUS status = STATUS_SUCCESS;
    if (parameters.Type == WdfRequestTypeDeviceControl) {
        status =
            PrepareControlRequest(request, parameters.Parameters.DeviceIoControl.IoControlCode);
    }
    if (NT_SUCCESS(status)) {
        status = WdfDeviceEnqueueRequest(device, request);
    }
    if (!NT_SUCCESS(status)) {
        ZPRF_TRACE(TRACE_CONTROL, TRACE_LEVEL_WARNING, "request %p refused, status %x", request,
                   status);
        WdfRequestComplete(request, status);
    }
}

void NTAPI IoDeviceControl(WDFQUEUE, WDFREQUEST request, size_t, size_t, ULONG controlCode) {
    if (controlCode == IOCTL_ZPRF_GET_BUFFER) {
        ParkBufferRequest(request);
        return;
    }
    const NTSTATUS status = CarryOut(request, controlCode);
    TraceOutcome(request, controlCode, status);
    WdfRequestComplete(request, status);
}

void NTAPI IoCanceledOnBufferQueue(WDFQUEUE, WDFREQUEST request) {
    ZPRF_TRACE(TRACE_CONTROL, TRACE_LEVEL_VERBOSE, "buffer request %p cancelled", request);
    MemCancelBuffer(request, STATUS_CANCELLED);
    ZPRF_TRACE(TRACE_CONTROL, TRACE_LEVEL_VERBOSE, "buffer request %p withdrawn", request);
}

}  // namespace zpregflt
