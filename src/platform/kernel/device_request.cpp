#include "platform/kernel/device_request.h"

#include "platform/kernel/packet.h"
#include "platform/kernel/user_memory.h"
#include "platform/kernel/verifier.h"

#include <algorithm>

namespace platform {

namespace {

constexpr ACCESS_MASK kEventModifyState = 0x2;

/// How a packet carries its buffers.
ULONG TransferMethod(const DeviceRequest& request) {
    return request.major == IRP_MJ_DEVICE_CONTROL ? request.controlCode & 3 : METHOD_BUFFERED;
}

/// Failures proper, not warnings: their output is not the caller's.
bool IsError(NTSTATUS status) {
    return static_cast<ULONG>(status) >> 30 == 3;
}

/// The kernel's buffers of a request, made before the driver sees it.
struct Buffers {
    std::unique_ptr<std::byte[]> system;
    std::unique_ptr<LockedPages> locked;
};

NTSTATUS MakeSystemBuffer(const DeviceRequest& request, std::size_t size,
                          const CallerMemory& memory, Buffers& buffers) {
    if (size == 0) return STATUS_SUCCESS;
    buffers.system = std::make_unique_for_overwrite<std::byte[]>(size);
    const bool copied = memory.Copy(buffers.system.get(), request.input, request.inputLength);
    return copied ? STATUS_SUCCESS : STATUS_ACCESS_VIOLATION;
}

NTSTATUS MakeBuffers(const DeviceRequest& request, const CallerMemory& memory, Buffers& buffers) {
    switch (TransferMethod(request)) {
        case METHOD_NEITHER:
            return STATUS_SUCCESS;
        case METHOD_BUFFERED:
            if (memory.Mode() == UserMode &&
                !IsWritableMemory(request.output, request.outputLength)) {
                return STATUS_ACCESS_VIOLATION;
            }
            return MakeSystemBuffer(request, std::max(request.inputLength, request.outputLength),
                                    memory, buffers);
        default: {
            const NTSTATUS status = MakeSystemBuffer(request, request.inputLength, memory, buffers);
            if (!NT_SUCCESS(status) || request.outputLength == 0) return status;
            return LockedPages::Lock(request.output, request.outputLength, buffers.locked);
        }
    }
}

/// The end of a request is told to its sender at APC_LEVEL, as the sender's memory may be paged
/// out; the thread that completes it, perhaps above that level, does it in place of the sender's.
class SendersContext {
public:
    SendersContext() : irql_(currentIrql) { currentIrql = std::min(irql_, APC_LEVEL); }
    ~SendersContext() { currentIrql = irql_; }
    SendersContext(const SendersContext&) = delete;
    SendersContext& operator=(const SendersContext&) = delete;

private:
    const KIRQL irql_;
};

/// Gives the caller the output of a finished buffered request.
void CopyOutput(IRP& irp, void* output, const CallerMemory& memory) {
    if (IsError(irp.status) || irp.information == 0 || irp.outputLength == 0) return;
    if (irp.information > irp.outputLength) {
        Violation(Rule::kFrameworkContract,
                  "a buffered request was completed with more output than its buffer has", &irp);
    }
    if (!memory.Copy(output, irp.systemBuffer.get(), irp.information)) {
        irp.status = STATUS_ACCESS_VIOLATION;
    }
}

PacketRef MakePacket(const ObjectRef<FileObject>& file, const DeviceRequest& request,
                     RequestReport report, Buffers buffers) {
    PacketRef irp = CreatePacket(request.major, file, report.Memory().Mode());
    const bool buffered = TransferMethod(request) == METHOD_BUFFERED;
    if (TransferMethod(request) == METHOD_NEITHER) {
        irp->type3InputBuffer = request.input;
        irp->userBuffer = request.output;
    }
    irp->controlCode = request.controlCode;
    irp->inputLength = request.inputLength;
    irp->outputLength = request.outputLength;
    irp->byteOffset = request.byteOffset;
    irp->systemBuffer = std::move(buffers.system);
    irp->mdl = std::move(buffers.locked);
    irp->userStatus = report.StatusBlock();
    irp->completed = [report = std::move(report), buffered, output = request.output](IRP& done) {
        const SendersContext context;
        if (buffered) CopyOutput(done, output, report.Memory());
        // Told of the end, the caller may free its memory.
        done.mdl.reset();
        report.Deliver(done.status, done.information);
    };
    return irp;
}

}  // namespace

NTSTATUS RequestReport::Prepare(PIO_STATUS_BLOCK ioStatus, HANDLE event) {
    // From now until the end the status block is the kernel's: its own contents written back do no
    // harm.
    IO_STATUS_BLOCK probe;
    if (!memory_.Load(probe, ioStatus) || !memory_.Store(ioStatus, probe)) {
        return STATUS_ACCESS_VIOLATION;
    }
    ioStatus_ = ioStatus;
    if (event == nullptr) return STATUS_SUCCESS;
    const NTSTATUS status =
        ReferenceHandle(event, kEventModifyState, kEventType, memory_.Mode(), event_);
    if (NT_SUCCESS(status)) event_->Clear();
    return status;
}

void RequestReport::Deliver(NTSTATUS status, ULONG_PTR information) const {
    NTSTATUS before;
    if (memory_.Store(&ioStatus_->Information, information) &&
        memory_.Load(before, &ioStatus_->Status)) {
        __atomic_store_n(&ioStatus_->Status, status, __ATOMIC_RELEASE);
    }
    if (event_) event_->Set();
}

NTSTATUS SendDeviceRequest(const ObjectRef<FileObject>& file, const DeviceRequest& request,
                           RequestReport report) {
    Buffers buffers;
    const NTSTATUS status = MakeBuffers(request, report.Memory(), buffers);
    if (!NT_SUCCESS(status)) return status;
    const PacketRef irp = MakePacket(file, request, std::move(report), std::move(buffers));
    if (!file->synchronous) return SendPacket(*irp);
    const std::lock_guard turn(file->turnLock);
    SendPacket(*irp);
    return AwaitPacket(*irp);
}

}  // namespace platform
