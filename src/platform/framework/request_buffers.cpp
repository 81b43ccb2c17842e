// The table's functions for the buffers of requests and for memory objects.
#include "platform/framework/contract.h"
#include "platform/framework/device.h"
#include "platform/framework/function_table.h"
#include "platform/framework/memory.h"
#include "platform/framework/request.h"

namespace platform::framework {

namespace {

struct Buffer {
    void* address;
    std::size_t length;
};

enum class Transfer { kBuffered, kDirect, kNeither };

bool IsControl(const IRP& irp) {
    return irp.major == IRP_MJ_DEVICE_CONTROL || irp.major == IRP_MJ_INTERNAL_DEVICE_CONTROL;
}

/// How the request's data travels: control codes say it themselves, else it is the device's type.
Transfer TransferOf(const IRP& irp, const Device& device) {
    if (IsControl(irp)) {
        switch (irp.controlCode & 3) {
            case METHOD_BUFFERED:
                return Transfer::kBuffered;
            case METHOD_NEITHER:
                return Transfer::kNeither;
            default:
                return Transfer::kDirect;
        }
    }
    switch (device.IoType()) {
        case WdfDeviceIoNeither:
            return Transfer::kNeither;
        case WdfDeviceIoDirect:
            return Transfer::kDirect;
        default:
            return Transfer::kBuffered;
    }
}

/// Reads and writes come with a system buffer whatever the device's type is.
void* KernelAddress(const IRP& irp, Transfer transfer) {
    const bool locked = transfer == Transfer::kDirect && irp.mdl != nullptr;
    return locked ? irp.mdl->SystemAddress() : irp.systemBuffer.get();
}

NTSTATUS FindInput(Request& request, Buffer& buffer) {
    const IRP& irp = request.Packet();
    const Transfer transfer = TransferOf(irp, *request.NearestDevice());
    if (irp.major == IRP_MJ_READ || transfer == Transfer::kNeither) {
        return STATUS_INVALID_DEVICE_REQUEST;
    }
    buffer = {irp.systemBuffer.get(), irp.inputLength};
    return STATUS_SUCCESS;
}

NTSTATUS FindOutput(Request& request, Buffer& buffer) {
    const IRP& irp = request.Packet();
    const Transfer transfer = TransferOf(irp, *request.NearestDevice());
    if (irp.major == IRP_MJ_WRITE || transfer == Transfer::kNeither) {
        return STATUS_INVALID_DEVICE_REQUEST;
    }
    buffer = {KernelAddress(irp, transfer), irp.outputLength};
    return STATUS_SUCCESS;
}

NTSTATUS FindUnsafeOutput(Request& request, Buffer& buffer) {
    const IRP& irp = request.Packet();
    if (irp.major == IRP_MJ_WRITE ||
        TransferOf(irp, *request.NearestDevice()) != Transfer::kNeither) {
        return STATUS_INVALID_DEVICE_REQUEST;
    }
    if (!IsControl(irp)) {
        Violation(Rule::kNotOffered, "raw buffers of reads: reads arrive with a system buffer");
    }
    buffer = {irp.userBuffer, irp.outputLength};
    return STATUS_SUCCESS;
}

/// The sender's addresses mean something only before the request was in a queue, and in the
/// sender's process.
void RequireCallersContext(const Call& call, const Request& request) {
    if (request.CurrentQueue() != nullptr ||
        &request.Packet().thread->Owner() != &CurrentProcess()) {
        call.VerifierBreak("outside EvtIoInCallerContext of " + request.Describe(),
                           request.Handle());
    }
}

/// What the retrieving functions share: nothing shorter than `minimum`, and never nothing.
NTSTATUS Retrieve(const Call& call, Request& request,
                  NTSTATUS (*find)(Request& request, Buffer& buffer), std::size_t minimum,
                  PVOID* address, std::size_t* length) {
    call.NotNull(address, "Buffer");
    *address = nullptr;
    if (length != nullptr) *length = 0;
    request.RequireDriver(call.Function());
    if (const auto fault = call.PlannedFault()) return *fault;
    Buffer buffer{};
    const NTSTATUS status = find(request, buffer);
    if (!NT_SUCCESS(status)) return status;
    if (buffer.length == 0 || buffer.length < minimum) return STATUS_BUFFER_TOO_SMALL;
    *address = buffer.address;
    if (length != nullptr) *length = buffer.length;
    return STATUS_SUCCESS;
}

NTSTATUS NTAPI RequestRetrieveInputBuffer(PWDF_DRIVER_GLOBALS globals, WDFREQUEST handle,
                                          std::size_t minimum, PVOID* buffer, std::size_t* length) {
    const Call call(globals, "WdfRequestRetrieveInputBuffer", DISPATCH_LEVEL);
    return Retrieve(call, call.To<Request>(handle), FindInput, minimum, buffer, length);
}

NTSTATUS NTAPI RequestRetrieveOutputBuffer(PWDF_DRIVER_GLOBALS globals, WDFREQUEST handle,
                                           std::size_t minimum, PVOID* buffer,
                                           std::size_t* length) {
    const Call call(globals, "WdfRequestRetrieveOutputBuffer", DISPATCH_LEVEL);
    return Retrieve(call, call.To<Request>(handle), FindOutput, minimum, buffer, length);
}

NTSTATUS NTAPI RequestRetrieveUnsafeUserOutputBuffer(PWDF_DRIVER_GLOBALS globals, WDFREQUEST handle,
                                                     std::size_t minimum, PVOID* buffer,
                                                     std::size_t* length) {
    const Call call(globals, "WdfRequestRetrieveUnsafeUserOutputBuffer", PASSIVE_LEVEL);
    Request& request = call.To<Request>(handle);
    request.RequireDriver(call.Function());
    RequireCallersContext(call, request);
    return Retrieve(call, request, FindUnsafeOutput, minimum, buffer, length);
}

NTSTATUS NTAPI RequestProbeAndLockUserBufferForWrite(PWDF_DRIVER_GLOBALS globals, WDFREQUEST handle,
                                                     PVOID buffer, std::size_t length,
                                                     WDFMEMORY* memory) {
    const Call call(globals, "WdfRequestProbeAndLockUserBufferForWrite", PASSIVE_LEVEL);
    Request& request = call.To<Request>(handle);
    call.NotNull(static_cast<char*>(buffer), "Buffer");
    call.NotNull(memory, "MemoryObject");
    *memory = nullptr;
    request.RequireDriver(call.Function());
    RequireCallersContext(call, request);
    if (const auto fault = call.PlannedFault()) return *fault;
    return request.LockForWrite(buffer, length, memory);
}

PVOID NTAPI MemoryGetBuffer(PWDF_DRIVER_GLOBALS globals, WDFMEMORY handle, std::size_t* size) {
    const Call call(globals, "WdfMemoryGetBuffer", DISPATCH_LEVEL);
    const Memory& memory = call.To<Memory>(handle);
    if (!memory.IsLocked()) {
        FrameworkBugcheck("WdfMemoryGetBuffer: the request of " + memory.Describe() +
                              " was completed and its pages unlocked",
                          handle);
    }
    if (size != nullptr) *size = memory.Size();
    return memory.Buffer();
}

}  // namespace

void AddRequestBufferFunctions(FunctionTable& table) {
    table.Set(WdfRequestRetrieveInputBufferTableIndex, &RequestRetrieveInputBuffer);
    table.Set(WdfRequestRetrieveOutputBufferTableIndex, &RequestRetrieveOutputBuffer);
    table.Set(WdfRequestRetrieveUnsafeUserOutputBufferTableIndex,
              &RequestRetrieveUnsafeUserOutputBuffer);
    table.Set(WdfRequestProbeAndLockUserBufferForWriteTableIndex,
              &RequestProbeAndLockUserBufferForWrite);
    table.Set(WdfMemoryGetBufferTableIndex, &MemoryGetBuffer);
}

}  // namespace platform::framework
