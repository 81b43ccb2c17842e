// The system calls for files and devices.
#include "platform/kernel/syscalls.h"

#include "platform/kernel/device_request.h"
#include "platform/kernel/fault_injection.h"
#include "platform/kernel/file_open.h"
#include "platform/kernel/host_file.h"
#include "platform/kernel/packet.h"
#include "platform/kernel/verifier.h"

namespace platform {

namespace {

/// The arguments that reading, writing and device control have in common.
struct CallFrame {
    const char* routine;
    KPROCESSOR_MODE mode;
    HANDLE file;
    HANDLE event;
    PVOID apcRoutine;
    PIO_STATUS_BLOCK ioStatus;
};

/// What such a call works on, once its arguments were looked at.
struct CallTarget {
    ObjectRef<FileObject> file;
    ACCESS_MASK granted = 0;
    RequestReport report;

    explicit CallTarget(KPROCESSOR_MODE mode) : report(mode) {}
};

NTSTATUS Prepare(const CallFrame& call, CallTarget& target) {
    RequireIrql(call.routine, PASSIVE_LEVEL);
    if (const auto fault = FailThisCall(call.routine)) return *fault;
    if (call.apcRoutine != nullptr) return STATUS_NOT_SUPPORTED;
    const NTSTATUS status =
        ReferenceHandle(call.file, 0, kFileType, call.mode, target.file, &target.granted);
    if (!NT_SUCCESS(status)) return status;
    return target.report.Prepare(call.ioStatus, call.event);
}

/// Whether the handle may be used with any of `anyOf`; kernel code too is held to what it opened.
bool HasAccess(const CallTarget& target, ACCESS_MASK anyOf) {
    return (target.granted & anyOf) != 0;
}

NTSTATUS CaptureOffset(const CallerMemory& memory, PLARGE_INTEGER given, LARGE_INTEGER& captured,
                       const LARGE_INTEGER*& offset) {
    offset = nullptr;
    if (given == nullptr) return STATUS_SUCCESS;
    if (!memory.Load(captured, given)) return STATUS_ACCESS_VIOLATION;
    offset = &captured;
    return STATUS_SUCCESS;
}

/// Reading and writing: `major` is IRP_MJ_READ or IRP_MJ_WRITE.
NTSTATUS TransferDevice(const CallTarget& target, UCHAR major, PVOID buffer, ULONG length,
                        const LARGE_INTEGER* offset) {
    DeviceRequest request{.major = major};
    request.byteOffset = offset != nullptr ? offset->QuadPart : 0;
    if (major == IRP_MJ_READ) {
        request.output = buffer;
        request.outputLength = length;
    } else {
        request.input = buffer;
        request.inputLength = length;
    }
    return SendDeviceRequest(target.file, request, target.report);
}

NTSTATUS TransferHost(const CallTarget& target, UCHAR major, PVOID buffer, ULONG length,
                      const LARGE_INTEGER* offset) {
    FileObject& file = *target.file;
    FilePlace place;
    NTSTATUS status = PlaceInFile(file, offset, place);
    if (!NT_SUCCESS(status)) return status;
    ULONG_PTR transferred = 0;
    if (major == IRP_MJ_READ) {
        status = ReadHostFile(file, place, buffer, length, transferred);
    } else {
        if (!HasAccess(target, FILE_WRITE_DATA)) place.kind = FilePlace::Kind::kEnd;
        status = WriteHostFile(file, place, buffer, length, transferred);
    }
    target.report.Deliver(status, transferred);
    return status;
}

NTSTATUS TransferFile(const CallFrame& call, UCHAR major, PVOID buffer, ULONG length,
                      PLARGE_INTEGER byteOffset) {
    CallTarget target(call.mode);
    NTSTATUS status = Prepare(call, target);
    if (!NT_SUCCESS(status)) return status;
    const ACCESS_MASK needed =
        major == IRP_MJ_READ ? FILE_READ_DATA : FILE_WRITE_DATA | FILE_APPEND_DATA;
    if (!HasAccess(target, needed)) return STATUS_ACCESS_DENIED;
    LARGE_INTEGER captured;
    const LARGE_INTEGER* offset = nullptr;
    status = CaptureOffset(target.report.Memory(), byteOffset, captured, offset);
    if (!NT_SUCCESS(status)) return status;
    const auto transfer = target.file->device ? TransferDevice : TransferHost;
    return transfer(target, major, buffer, length, offset);
}

/// Bits 14 and 15 of a control code: the access that the handle must have.
NTSTATUS CheckControlAccess(ULONG controlCode, ACCESS_MASK granted) {
    const ULONG required = controlCode >> 14 & 3;
    const bool reads = (required & FILE_READ_ACCESS) != 0;
    const bool writes = (required & FILE_WRITE_ACCESS) != 0;
    const bool allowed = (!reads || (granted & FILE_READ_DATA) != 0) &&
                         (!writes || (granted & FILE_WRITE_DATA) != 0);
    return allowed ? STATUS_SUCCESS : STATUS_ACCESS_DENIED;
}

/// Opens the file, then the handle; the caller hears of the handle before the status.
NTSTATUS CreateFileHandle(const CallerMemory& memory, PHANDLE handle, POBJECT_ATTRIBUTES attributes,
                          const OpenRequest& request, ULONG_PTR& information) {
    CapturedString name;
    NTSTATUS status = CaptureFileName(memory, attributes, name);
    if (!NT_SUCCESS(status)) return status;
    ObjectRef<FileObject> file;
    ACCESS_MASK granted = 0;
    status = OpenFile(name.Text(), request, file, granted, information);
    if (!NT_SUCCESS(status)) return status;
    HANDLE opened = nullptr;
    status = CreateHandle(file.get(), granted, 0, &opened);
    if (NT_SUCCESS(status) && !memory.Store(handle, opened)) {
        CloseHandle(opened, UserMode);
        return STATUS_ACCESS_VIOLATION;
    }
    return status;
}

}  // namespace

}  // namespace platform

using namespace platform;

extern "C" {

NTSTATUS NTAPI NtCreateFile(PHANDLE file, ACCESS_MASK desiredAccess, POBJECT_ATTRIBUTES attributes,
                            PIO_STATUS_BLOCK ioStatus, PLARGE_INTEGER, ULONG, ULONG,
                            ULONG createDisposition, ULONG createOptions, PVOID eaBuffer,
                            ULONG eaLength) {
    UserModeCall call("NtCreateFile");
    if (const auto fault = FailThisCall("NtCreateFile")) return *fault;
    if (eaBuffer != nullptr || eaLength != 0) return STATUS_NOT_SUPPORTED;
    RequestReport report(UserMode);
    NTSTATUS status = report.Prepare(ioStatus, nullptr);
    if (!NT_SUCCESS(status)) return status;
    ULONG_PTR information = 0;
    status = CreateFileHandle(report.Memory(), file, attributes,
                              {desiredAccess, createDisposition, createOptions}, information);
    if (NT_SUCCESS(status)) report.Deliver(status, information);
    return status;
}

NTSTATUS NTAPI NtReadFile(HANDLE file, HANDLE event, PVOID apcRoutine, PVOID,
                          PIO_STATUS_BLOCK ioStatus, PVOID buffer, ULONG length,
                          PLARGE_INTEGER byteOffset, PULONG) {
    UserModeCall call("NtReadFile");
    return TransferFile({"NtReadFile", UserMode, file, event, apcRoutine, ioStatus}, IRP_MJ_READ,
                        buffer, length, byteOffset);
}

NTSTATUS NTAPI NtWriteFile(HANDLE file, HANDLE event, PVOID apcRoutine, PVOID,
                           PIO_STATUS_BLOCK ioStatus, PVOID buffer, ULONG length,
                           PLARGE_INTEGER byteOffset, PULONG) {
    UserModeCall call("NtWriteFile");
    return TransferFile({"NtWriteFile", UserMode, file, event, apcRoutine, ioStatus}, IRP_MJ_WRITE,
                        buffer, length, byteOffset);
}

NTSTATUS NTAPI ZwWriteFile(HANDLE file, HANDLE event, PVOID apcRoutine, PVOID,
                           PIO_STATUS_BLOCK ioStatus, PVOID buffer, ULONG length,
                           PLARGE_INTEGER byteOffset, PULONG) {
    return TransferFile({"ZwWriteFile", KernelMode, file, event, apcRoutine, ioStatus},
                        IRP_MJ_WRITE, buffer, length, byteOffset);
}

NTSTATUS NTAPI NtDeviceIoControlFile(HANDLE file, HANDLE event, PVOID apcRoutine, PVOID,
                                     PIO_STATUS_BLOCK ioStatus, ULONG controlCode,
                                     PVOID inputBuffer, ULONG inputLength, PVOID outputBuffer,
                                     ULONG outputLength) {
    UserModeCall call("NtDeviceIoControlFile");
    CallTarget target(UserMode);
    NTSTATUS status =
        Prepare({"NtDeviceIoControlFile", UserMode, file, event, apcRoutine, ioStatus}, target);
    if (!NT_SUCCESS(status)) return status;
    status = CheckControlAccess(controlCode, target.granted);
    if (!NT_SUCCESS(status)) return status;
    if (!target.file->device) return STATUS_INVALID_DEVICE_REQUEST;
    const DeviceRequest request{.major = IRP_MJ_DEVICE_CONTROL,
                                .controlCode = controlCode,
                                .input = inputBuffer,
                                .inputLength = inputLength,
                                .output = outputBuffer,
                                .outputLength = outputLength};
    return SendDeviceRequest(target.file, request, std::move(target.report));
}

NTSTATUS NTAPI NtCancelIoFileEx(HANDLE file, PIO_STATUS_BLOCK ioRequest,
                                PIO_STATUS_BLOCK ioStatus) {
    UserModeCall call("NtCancelIoFileEx");
    CallTarget target(UserMode);
    NTSTATUS status =
        Prepare({"NtCancelIoFileEx", UserMode, file, nullptr, nullptr, ioStatus}, target);
    if (!NT_SUCCESS(status)) return status;
    // NOLINTNEXTLINE(clang-analyzer-core.uninitialized.UndefReturn): planned faults are failures
    status = CancelPackets(*target.file, ioRequest) ? STATUS_SUCCESS : STATUS_NOT_FOUND;
    target.report.Deliver(status, 0);
    return status;
}

}  // extern "C"
