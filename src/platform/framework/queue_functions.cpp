// The table's functions for queues.
#include "platform/framework/contract.h"
#include "platform/framework/device.h"
#include "platform/framework/function_table.h"
#include "platform/framework/queue.h"

#include <cstring>

namespace platform::framework {

namespace {

// The configuration structure without the members that later versions appended.
constexpr ULONG kSizeWithoutSettings = 80;
constexpr ULONG kSizeWithoutDriver = 88;

/// The configuration as the current version has it; false when its size belongs to no version.
bool Normalize(const WDF_IO_QUEUE_CONFIG& given, WDF_IO_QUEUE_CONFIG& config) {
    if (given.Size != kSizeWithoutSettings && given.Size != kSizeWithoutDriver &&
        given.Size != sizeof(given)) {
        return false;
    }
    std::memcpy(&config, &given, given.Size);
    if (given.Size == kSizeWithoutSettings && given.DispatchType == WdfIoQueueDispatchParallel) {
        config.Settings.Parallel.NumberOfPresentedRequests = 0xFFFFFFFF;
    }
    return true;
}

NTSTATUS NTAPI IoQueueCreate(PWDF_DRIVER_GLOBALS globals, WDFDEVICE handle,
                             PWDF_IO_QUEUE_CONFIG given, PWDF_OBJECT_ATTRIBUTES attributes,
                             WDFQUEUE* queue) {
    const Call call(globals, "WdfIoQueueCreate", DISPATCH_LEVEL);
    Device& device = call.To<Device>(handle);
    call.NotNull(given, "Config");
    if (queue != nullptr) *queue = nullptr;
    if (const auto fault = call.PlannedFault()) return *fault;
    WDF_IO_QUEUE_CONFIG config{};
    if (!Normalize(*given, config)) return STATUS_INFO_LENGTH_MISMATCH;
    if (!config.DefaultQueue && queue == nullptr) return STATUS_INVALID_PARAMETER_4;
    NTSTATUS status = ValidateAttributes(attributes, ParentRule::kOptional);
    if (!NT_SUCCESS(status)) return status;
    const bool elsewhere = attributes != nullptr && attributes->ParentObject != nullptr;
    Object& parent = elsewhere ? call.ToObject(attributes->ParentObject) : device;
    Queue* made = nullptr;
    status = Queue::Create(device, config, attributes, parent, &made);
    if (NT_SUCCESS(status) && queue != nullptr) *queue = static_cast<WDFQUEUE>(made->Handle());
    return status;
}

void NTAPI IoQueueStart(PWDF_DRIVER_GLOBALS globals, WDFQUEUE handle) {
    const Call call(globals, "WdfIoQueueStart", DISPATCH_LEVEL);
    call.To<Queue>(handle).Start();
}

void NTAPI IoQueueStop(PWDF_DRIVER_GLOBALS globals, WDFQUEUE handle,
                       EVT_WDF_IO_QUEUE_STATE* complete, WDFCONTEXT context) {
    const Call call(globals, "WdfIoQueueStop", DISPATCH_LEVEL);
    if (!call.To<Queue>(handle).Stop(complete, context)) {
        call.VerifierBreak("another state callback of the queue is outstanding", handle);
    }
}

void NTAPI IoQueuePurge(PWDF_DRIVER_GLOBALS globals, WDFQUEUE handle,
                        EVT_WDF_IO_QUEUE_STATE* complete, WDFCONTEXT context) {
    const Call call(globals, "WdfIoQueuePurge", DISPATCH_LEVEL);
    if (!call.To<Queue>(handle).Purge(complete, context)) {
        call.VerifierBreak("another state callback of the queue is outstanding", handle);
    }
}

WDFDEVICE NTAPI IoQueueGetDevice(PWDF_DRIVER_GLOBALS globals, WDFQUEUE handle) {
    const Call call(globals, "WdfIoQueueGetDevice", DISPATCH_LEVEL);
    return static_cast<WDFDEVICE>(call.To<Queue>(handle).OwningDevice().Handle());
}

NTSTATUS NTAPI IoQueueRetrieveNextRequest(PWDF_DRIVER_GLOBALS globals, WDFQUEUE handle,
                                          WDFREQUEST* request) {
    const Call call(globals, "WdfIoQueueRetrieveNextRequest", DISPATCH_LEVEL);
    Queue& queue = call.To<Queue>(handle);
    call.NotNull(request, "OutRequest");
    *request = nullptr;
    Request* next = nullptr;
    const NTSTATUS status = queue.RetrieveNext(&next);
    if (NT_SUCCESS(status)) *request = static_cast<WDFREQUEST>(next->Handle());
    return status;
}

NTSTATUS NTAPI IoQueueFindRequest(PWDF_DRIVER_GLOBALS globals, WDFQUEUE handle,
                                  WDFREQUEST foundHandle, WDFFILEOBJECT fileObject,
                                  PWDF_REQUEST_PARAMETERS parameters, WDFREQUEST* request) {
    const Call call(globals, "WdfIoQueueFindRequest", DISPATCH_LEVEL);
    Queue& queue = call.To<Queue>(handle);
    call.NotNull(request, "OutRequest");
    *request = nullptr;
    Request* found = foundHandle == nullptr ? nullptr : &call.To<Request>(foundHandle);
    if (fileObject != nullptr) {
        FrameworkBugcheck(
            "WdfIoQueueFindRequest: the device has no file-object configuration, so nothing can be "
            "a WDFFILEOBJECT",
            fileObject);
    }
    if (parameters != nullptr && parameters->Size < sizeof(*parameters)) {
        return STATUS_INVALID_PARAMETER_4;
    }
    Request* next = nullptr;
    const NTSTATUS status = queue.Find(found, parameters, &next);
    if (NT_SUCCESS(status)) *request = static_cast<WDFREQUEST>(next->Handle());
    return status;
}

NTSTATUS NTAPI IoQueueRetrieveFoundRequest(PWDF_DRIVER_GLOBALS globals, WDFQUEUE handle,
                                           WDFREQUEST found, WDFREQUEST* request) {
    const Call call(globals, "WdfIoQueueRetrieveFoundRequest", DISPATCH_LEVEL);
    Queue& queue = call.To<Queue>(handle);
    Request& wanted = call.To<Request>(found);
    call.NotNull(request, "OutRequest");
    *request = nullptr;
    const NTSTATUS status = queue.RetrieveFound(wanted);
    if (NT_SUCCESS(status)) *request = found;
    return status;
}

}  // namespace

void AddQueueFunctions(FunctionTable& table) {
    table.Set(WdfIoQueueCreateTableIndex, &IoQueueCreate);
    table.Set(WdfIoQueueStartTableIndex, &IoQueueStart);
    table.Set(WdfIoQueueStopTableIndex, &IoQueueStop);
    table.Set(WdfIoQueuePurgeTableIndex, &IoQueuePurge);
    table.Set(WdfIoQueueGetDeviceTableIndex, &IoQueueGetDevice);
    table.Set(WdfIoQueueRetrieveNextRequestTableIndex, &IoQueueRetrieveNextRequest);
    table.Set(WdfIoQueueFindRequestTableIndex, &IoQueueFindRequest);
    table.Set(WdfIoQueueRetrieveFoundRequestTableIndex, &IoQueueRetrieveFoundRequest);
}

}  // namespace platform::framework
