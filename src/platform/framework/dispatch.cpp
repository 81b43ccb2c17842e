#include "platform/framework/dispatch.h"

#include "platform/framework/device.h"
#include "platform/kernel/io.h"

namespace platform::framework {

namespace {

void Complete(IRP* irp, NTSTATUS status) {
    irp->status = status;
    irp->information = 0;
    CompleteIrp(irp);
}

void CloseFile(Device& device, IRP* irp) {
    const ObjectPtr<Device> keep(&device);
    Complete(irp, STATUS_SUCCESS);
    device.CloseFile();
}

}  // namespace

NTSTATUS NTAPI Dispatch(PDEVICE_OBJECT deviceObject, PIRP irp) {
    auto* device = static_cast<Device*>(deviceObject->extension);
    if (device == nullptr) {
        Complete(irp, STATUS_NO_SUCH_DEVICE);
        return STATUS_PENDING;
    }
    switch (irp->major) {
        case IRP_MJ_CREATE:
            Complete(irp, device->OpenFile());
            break;
        case IRP_MJ_CLEANUP:
            device->CleanUpFile(*irp->file);
            Complete(irp, STATUS_SUCCESS);
            break;
        case IRP_MJ_CLOSE:
            CloseFile(*device, irp);
            break;
        case IRP_MJ_READ:
        case IRP_MJ_WRITE:
        case IRP_MJ_DEVICE_CONTROL:
        case IRP_MJ_INTERNAL_DEVICE_CONTROL:
            device->Receive(*irp);
            break;
        // Shutdown reaches the driver as a notification, not as a packet.
        default:
            Complete(irp, STATUS_INVALID_DEVICE_REQUEST);
            break;
    }
    return STATUS_PENDING;
}

}  // namespace platform::framework
