// The table's functions for requests, but for those of their buffers.
#include "platform/framework/contract.h"
#include "platform/framework/function_table.h"
#include "platform/framework/queue.h"
#include "platform/framework/request.h"

namespace platform::framework {

namespace {

void CompleteRequest(const Call& call, WDFREQUEST handle, NTSTATUS status,
                     const ULONG_PTR* information) {
    Request& request = call.To<Request>(handle);
    if (status == STATUS_PENDING) {
        call.VerifierBreak("a request cannot be completed with STATUS_PENDING", handle);
    }
    request.RequireCompletable(call.Function());
    request.LeaveDriver(call.Function(), RequestState::kFramework);
    if (information != nullptr) request.SetInformation(*information);
    request.Finish(status);
}

void NTAPI RequestComplete(PWDF_DRIVER_GLOBALS globals, WDFREQUEST handle, NTSTATUS status) {
    CompleteRequest(Call(globals, "WdfRequestComplete", DISPATCH_LEVEL), handle, status, nullptr);
}

void NTAPI RequestCompleteWithInformation(PWDF_DRIVER_GLOBALS globals, WDFREQUEST handle,
                                          NTSTATUS status, ULONG_PTR information) {
    CompleteRequest(Call(globals, "WdfRequestCompleteWithInformation", DISPATCH_LEVEL), handle,
                    status, &information);
}

void NTAPI RequestSetInformation(PWDF_DRIVER_GLOBALS globals, WDFREQUEST handle,
                                 ULONG_PTR information) {
    const Call call(globals, "WdfRequestSetInformation", DISPATCH_LEVEL);
    Request& request = call.To<Request>(handle);
    request.RequireDriver(call.Function());
    request.SetInformation(information);
}

void NTAPI RequestGetParameters(PWDF_DRIVER_GLOBALS globals, WDFREQUEST handle,
                                PWDF_REQUEST_PARAMETERS parameters) {
    const Call call(globals, "WdfRequestGetParameters", DISPATCH_LEVEL);
    Request& request = call.To<Request>(handle);
    call.NotNull(parameters, "Parameters");
    request.RequireDriver(call.Function());
    if (parameters->Size == sizeof(*parameters)) request.GetParameters(*parameters);
}

/// File objects exist only for devices with a file-object configuration, which is not offered.
WDFFILEOBJECT NTAPI RequestGetFileObject(PWDF_DRIVER_GLOBALS globals, WDFREQUEST handle) {
    const Call call(globals, "WdfRequestGetFileObject", DISPATCH_LEVEL);
    call.To<Request>(handle).RequireDriver(call.Function());
    return nullptr;
}

NTSTATUS NTAPI RequestForwardToIoQueue(PWDF_DRIVER_GLOBALS globals, WDFREQUEST handle,
                                       WDFQUEUE destination) {
    const Call call(globals, "WdfRequestForwardToIoQueue", DISPATCH_LEVEL);
    Request& request = call.To<Request>(handle);
    Queue& queue = call.To<Queue>(destination);
    request.RequireDriver(call.Function());
    if (request.CurrentQueue() == nullptr) {
        Violation(Rule::kFrameworkContract,
                  std::string(call.Function()) + ": " + request.Describe() +
                      " was in no queue yet; WdfDeviceEnqueueRequest passes it on",
                  handle);
    }
    if (const auto fault = call.PlannedFault()) return *fault;
    return Queue::Forward(call.Function(), request, queue);
}

}  // namespace

void AddRequestFunctions(FunctionTable& table) {
    table.Set(WdfRequestCompleteTableIndex, &RequestComplete);
    table.Set(WdfRequestCompleteWithInformationTableIndex, &RequestCompleteWithInformation);
    table.Set(WdfRequestSetInformationTableIndex, &RequestSetInformation);
    table.Set(WdfRequestGetParametersTableIndex, &RequestGetParameters);
    table.Set(WdfRequestGetFileObjectTableIndex, &RequestGetFileObject);
    table.Set(WdfRequestForwardToIoQueueTableIndex, &RequestForwardToIoQueue);
}

}  // namespace platform::framework
