#include "platform/kernel/file_open.h"

#include "platform/kernel/device.h"
#include "platform/kernel/host_file.h"
#include "platform/kernel/packet.h"
#include "platform/kernel/syscalls.h"

namespace platform {

namespace {

constexpr ULONG kSynchronousAlert = 0x10;
constexpr ULONG kNonDirectoryFile = 0x40;
constexpr ULONG kSynchronousOptions = kSynchronousAlert | FILE_SYNCHRONOUS_IO_NONALERT;
constexpr ULONG kKnownOptions = kSynchronousOptions | kNonDirectoryFile;

/// The device that `name` or the beginning of it names. A name may go on behind the device's: that
/// part is for its driver.
NTSTATUS FindDevice(std::u16string_view name, ObjectRef<DEVICE_OBJECT>& device,
                    std::u16string_view& rest) {
    NTSTATUS firstFailure = STATUS_OBJECT_PATH_SYNTAX_BAD;
    for (std::size_t end = name.size(); end != 0 && end != std::u16string_view::npos;
         end = name.rfind(u'\\', end - 1)) {
        void* body = nullptr;
        const NTSTATUS status = LookupNamedObject(name.substr(0, end), &body);
        if (NT_SUCCESS(status) && TypeOf(body) == &kDeviceType) {
            device = ObjectRef<DEVICE_OBJECT>::Adopt(static_cast<DEVICE_OBJECT*>(body));
            rest = name.substr(end);
            return STATUS_SUCCESS;
        }
        if (NT_SUCCESS(status)) {
            DereferenceObject(body);
            return STATUS_OBJECT_TYPE_MISMATCH;
        }
        if (end == name.size()) firstFailure = status;
    }
    return firstFailure;
}

/// Opens the device's file at its driver.
NTSTATUS OpenDevice(ObjectRef<DEVICE_OBJECT> device, std::u16string_view rest,
                    ACCESS_MASK desiredAccess, const ObjectRef<FileObject>& file,
                    ACCESS_MASK& granted, ULONG_PTR& information) {
    NTSTATUS status = AdmitOpen(*device);
    if (!NT_SUCCESS(status)) return status;
    file->name = std::u16string(device->name).append(rest);
    file->device = std::move(device);  // and the file object ends what was admitted
    status = AccessCheck(file->device->security, CurrentProcess().GetToken(), desiredAccess,
                         kFileType.mapping, &granted);
    if (!NT_SUCCESS(status)) return status;
    const PacketRef irp = CreatePacket(IRP_MJ_CREATE, file, UserMode);
    SendPacket(*irp);
    status = AwaitPacket(*irp);
    file->opened = NT_SUCCESS(status);
    information = irp->information;
    return status;
}

}  // namespace

NTSTATUS CaptureFileName(const CallerMemory& memory, POBJECT_ATTRIBUTES attributes,
                         CapturedString& name) {
    OBJECT_ATTRIBUTES given;
    if (!memory.Load(given, attributes)) return STATUS_ACCESS_VIOLATION;
    if (given.Length != sizeof given) return STATUS_INVALID_PARAMETER;
    if (given.ObjectName == nullptr) return STATUS_OBJECT_PATH_SYNTAX_BAD;
    if (given.RootDirectory != nullptr) return STATUS_NOT_SUPPORTED;
    return name.Capture(memory, given.ObjectName);
}

NTSTATUS OpenFile(std::u16string_view name, const OpenRequest& request, ObjectRef<FileObject>& file,
                  ACCESS_MASK& granted, ULONG_PTR& information) {
    if ((request.options & ~kKnownOptions) != 0) return STATUS_NOT_SUPPORTED;
    const bool synchronous = (request.options & kSynchronousOptions) != 0;
    if (synchronous && (request.desiredAccess & SYNCHRONIZE) == 0) return STATUS_INVALID_PARAMETER;
    file = ObjectRef<FileObject>::Adopt(CreateObject<FileObject>(kFileType));
    file->synchronous = synchronous;
    if (const auto path = HostPath(name)) {
        file->name = name;
        granted = MapAccess(request.desiredAccess, kFileType);
        return OpenHostFile(*file, *path, granted, request.disposition, information);
    }
    ObjectRef<DEVICE_OBJECT> device;
    std::u16string_view rest;
    const NTSTATUS status = FindDevice(name, device, rest);
    if (!NT_SUCCESS(status)) return status;
    return OpenDevice(std::move(device), rest, request.desiredAccess, file, granted, information);
}

}  // namespace platform
