// The file object: what happens when its handles and its references go.
#include "platform/kernel/device.h"
#include "platform/kernel/packet.h"

#include <unistd.h>

namespace platform {

namespace {

/// Tells the driver of the file's clean-up or end. Drivers cannot refuse either, so the status says
/// nothing.
void TellDriver(FileObject& file, UCHAR major) {
    // The last reference may be gone already: the packet borrows the file, and gives it back
    // uncounted.
    const PacketRef irp = CreatePacket(major, ObjectRef<FileObject>::Adopt(&file), KernelMode);
    SendPacket(*irp);
    AwaitPacket(*irp);
    irp->file.release();
}

void CleanUp(FileObject& file) {
    file.cleanedUp = true;
    TellDriver(file, IRP_MJ_CLEANUP);
}

void CloseFileHandle(void* body, Process*, bool, bool lastOfAll) {
    auto& file = *static_cast<FileObject*>(body);
    if (lastOfAll && file.opened) CleanUp(file);
}

void DestroyFile(void* body) {
    auto* file = static_cast<FileObject*>(body);
    if (file->opened) {
        // A file that the driver accepted, but that never got a handle, is cleaned up here.
        if (!file->cleanedUp) CleanUp(*file);
        TellDriver(*file, IRP_MJ_CLOSE);
    }
    ObjectRef<DEVICE_OBJECT> device = std::move(file->device);
    file->~FileObject();
    if (device) EndOpen(std::move(device));
}

bool QueryFileName(void* body, std::u16string& name) {
    name = static_cast<FileObject*>(body)->name;
    return true;
}

}  // namespace

const ObjectType kFileType{
    .name = "File",
    .mapping = {FILE_GENERIC_READ, FILE_GENERIC_WRITE, FILE_GENERIC_EXECUTE, FILE_ALL_ACCESS},
    .validAccess = FILE_ALL_ACCESS,
    .destroy = DestroyFile,
    .close = CloseFileHandle,
    .queryName = QueryFileName,
};

FileObject::~FileObject() {
    if (hostFile != -1) close(hostFile);
}

}  // namespace platform
