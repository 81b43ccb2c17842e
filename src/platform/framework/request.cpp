#include "platform/framework/request.h"

#include "platform/framework/contract.h"
#include "platform/framework/device.h"
#include "platform/framework/memory.h"
#include "platform/framework/queue.h"

namespace platform::framework {

namespace {

const char* StateText(RequestState state) {
    switch (state) {
        case RequestState::kFramework:
            return "is the framework's";
        case RequestState::kDriver:
            return "is the driver's";
        case RequestState::kQueued:
            return "waits in a queue";
        case RequestState::kCancelling:
            return "is being cancelled";
        case RequestState::kCompleted:
            return "was completed before";
    }
    return "is in no state";
}

/// Statuses of the framework's own facility do not leave the driver.
NTSTATUS MapFrameworkStatus(NTSTATUS status) {
    constexpr ULONG kFrameworkFacility = 0x20;
    if ((static_cast<ULONG>(status) >> 16 & 0xFFF) != kFrameworkFacility) return status;
    switch (status) {
        case STATUS_WDF_PAUSED:
        case STATUS_WDF_BUSY:
            return STATUS_DEVICE_BUSY;
        case STATUS_WDF_INTERNAL_ERROR:
            return STATUS_INTERNAL_ERROR;
        default:
            return STATUS_INVALID_DEVICE_REQUEST;
    }
}

}  // namespace

Request::Request(Device& device, IRP& irp)
    : Object(device.Owner(), kKind), device_(device), keepDevice_(&device), irp_(&irp) {
    link_.request = this;
    InitializeListHead(&link_);
    irp.frameworkRequest = this;
}

void Request::GetParameters(WDF_REQUEST_PARAMETERS& parameters) const {
    const USHORT size = parameters.Size;
    parameters = {};
    parameters.Size = size;
    parameters.Type = static_cast<WDF_REQUEST_TYPE>(irp_->major);
    if (irp_->major == IRP_MJ_DEVICE_CONTROL || irp_->major == IRP_MJ_INTERNAL_DEVICE_CONTROL) {
        auto& control = parameters.Parameters.DeviceIoControl;
        control.OutputBufferLength = irp_->outputLength;
        control.InputBufferLength = irp_->inputLength;
        control.IoControlCode = irp_->controlCode;
        control.Type3InputBuffer = irp_->type3InputBuffer;
    } else {
        auto& transfer = parameters.Parameters.ReadWrite;
        transfer.Length = irp_->major == IRP_MJ_READ ? irp_->outputLength : irp_->inputLength;
        transfer.DeviceOffset = irp_->byteOffset;
    }
}

void Request::NotTheDrivers(const char* function, RequestState actual) const {
    const bool completed = actual == RequestState::kCompleted;
    Violation(
        completed ? Rule::kRequestTwice : Rule::kFrameworkContract,
        std::string(function) + ": " + Describe() + " is not the driver's: it " + StateText(actual),
        Handle());
}

void Request::RequireDriver(const char* function) const {
    const RequestState actual = State();
    if (actual != RequestState::kDriver) NotTheDrivers(function, actual);
}

void Request::LeaveDriver(const char* function, RequestState next) {
    RequestState expected = RequestState::kDriver;
    if (!state_.compare_exchange_strong(expected, next, std::memory_order_acq_rel)) {
        NotTheDrivers(function, expected);
    }
}

void Request::RequireCompletable(const char* function) {
    RequireDriver(function);
    std::string leaked;
    ForEachChild([&](Object& child) {
        if (child.Kind() == ObjectKind::kMemory && child.DriverReferences() != 0) {
            leaked = child.Describe();
        }
    });
    if (!leaked.empty()) {
        FrameworkBugcheck(std::string(function) + ": " + Describe() +
                              " completed while the driver references its " + leaked,
                          Handle());
    }
}

void Request::Finish(NTSTATUS status, ULONG_PTR information) {
    // Keeps the queue, and with it the device and its wait for this request, until the end.
    const ObjectPtr<Queue> queue(CurrentQueue());
    const ObjectPtr<Object> device(&device_);
    const ObjectPtr<Request> keep(this);
    IRP* irp = irp_;
    SetState(RequestState::kCompleted);
    Delete();  // unlocks its memory before the sender hears of the end
    irp->frameworkRequest = nullptr;
    irp->status = MapFrameworkStatus(status);
    irp->information = information;
    CompleteIrp(irp);
    if (queue) {
        queue->Release(*this);
    } else {
        device_.ReleaseUnqueued(*this);
    }
}

NTSTATUS Request::LockForWrite(void* buffer, std::size_t length, WDFMEMORY* memory) {
    if (length == 0) return STATUS_INVALID_USER_BUFFER;
    std::unique_ptr<LockedPages> pages;
    NTSTATUS status = LockedPages::Lock(buffer, length, pages);
    Memory* made = nullptr;
    if (NT_SUCCESS(status)) status = Memory::Create(*this, std::move(pages), &made);
    if (NT_SUCCESS(status)) *memory = static_cast<WDFMEMORY>(made->Handle());
    return status;
}

}  // namespace platform::framework
