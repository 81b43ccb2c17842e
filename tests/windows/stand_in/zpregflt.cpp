// A driver with the control device's name and requests and nothing behind them: what the program
// meets under Wine, whose kernel has neither the framework nor registry callbacks.
//
// Every flush delivers three buffers one after the other, each with one record, as the driver would
// record the creation of key Flush<number>. The key's operations say what was set to be recorded.
#include "kernel.h"

#include "channel/buffer_format.h"
#include "driver/control_codes.h"
#include "records/record_format.h"

namespace {

using namespace zpregflt;

constexpr ULONG kBuffersOfFlush = 20;
/// The time of each record, and a little later each time: after the start of every process.
constexpr ULONG64 kLongFromNow = 0x0220000000000000;

LIST_ENTRY parked;  // buffer requests, under the cancel spin lock like everything below
ULONG loggedOperations = 0x17;
ULONG deliveries = 0;
bool hasExemption = false;
bool hasDumpFile = false;

class CancelLock {
public:
    CancelLock() { IoAcquireCancelSpinLock(&irql_); }
    ~CancelLock() { IoReleaseCancelSpinLock(irql_); }
    CancelLock(const CancelLock&) = delete;
    CancelLock& operator=(const CancelLock&) = delete;

private:
    KIRQL irql_;
};

NTSTATUS Complete(PIRP irp, NTSTATUS status, ULONG_PTR information = 0) {
    irp->IoStatus.Status = status;
    irp->IoStatus.Information = information;
    IoCompleteRequest(irp, IO_NO_INCREMENT);
    return status;
}

void NTAPI OnCancel(PDEVICE_OBJECT, PIRP irp) {
    RemoveEntryList(&irp->Tail.Overlay.ListEntry);
    IoReleaseCancelSpinLock(irp->CancelIrql);
    Complete(irp, STATUS_CANCELLED);
}

PIRP TakeParked() {
    const CancelLock lock;
    while (!IsListEmpty(&parked)) {
        PIRP const irp = CONTAINING_RECORD(parked.Flink, IRP, Tail.Overlay.ListEntry);
        if (IoSetCancelRoutine(irp, nullptr) == nullptr) {
            return nullptr;  // is being cancelled, and so are the others
        }
        RemoveEntryList(&irp->Tail.Overlay.ListEntry);
        return irp;
    }
    return nullptr;
}

struct Image {
    BufferHeader header;
    RecordHeader record;
    wchar_t name[48];
};

/// Wine hands the client as many bytes as the request reports, so it reports the image's size where
/// the driver would report its reservations.
void Deliver(PIRP irp) {
    static constexpr wchar_t kPath[] = L"\\REGISTRY\\MACHINE\\Software\\Flush00000";
    constexpr ULONG kDigitsEnd = sizeof(kPath) / sizeof(wchar_t) - 1;
    auto& image = *static_cast<Image*>(irp->UserBuffer);
    image = {};
    image.header.NextOffset = offsetof(Image, record);
    image.record.Type = RecordType::kKeyCreated;
    image.record.ProcessId =
        static_cast<ULONG>(reinterpret_cast<ULONG_PTR>(PsGetCurrentProcessId()));
    image.record.ProcessKey = 1;
    image.record.SystemTime = kLongFromNow + deliveries;
    image.record.KeyOperations = loggedOperations;
    image.record.NameOffset = offsetof(Image, name) - offsetof(Image, record);
    for (ULONG i = 0; i < kDigitsEnd; ++i) {
        image.name[i] = kPath[i];
    }
    ULONG number = ++deliveries;
    for (ULONG i = kDigitsEnd; number != 0; number /= 10) {
        image.name[--i] = static_cast<wchar_t>(L'0' + number % 10);
    }
    Complete(irp, STATUS_SUCCESS, sizeof(image));
}

NTSTATUS Park(PIRP irp, ULONG size) {
    if (irp->UserBuffer == nullptr || size < kMinimumBufferSize) {
        return Complete(irp, STATUS_INVALID_PARAMETER);
    }
    const CancelLock lock;
    IoMarkIrpPending(irp);
    InsertTailList(&parked, &irp->Tail.Overlay.ListEntry);
    IoSetCancelRoutine(irp, OnCancel);
    return STATUS_PENDING;
}

NTSTATUS Flush(PIRP irp) {
    for (ULONG i = 0; i < kBuffersOfFlush; ++i) {
        if (PIRP const buffer = TakeParked()) {
            Deliver(buffer);
        }
    }
    return Complete(irp, STATUS_SUCCESS);
}

/// As the driver: the second time the same is asked for it is there already.
NTSTATUS SetOnce(PIRP irp, bool& isSet) {
    const bool was = isSet;
    isSet = true;
    return Complete(irp, was ? STATUS_OBJECT_NAME_COLLISION : STATUS_SUCCESS);
}

NTSTATUS NTAPI OnControl(PDEVICE_OBJECT, PIRP irp) {
    const auto& parameters = IoGetCurrentIrpStackLocation(irp)->Parameters.DeviceIoControl;
    switch (parameters.IoControlCode) {
        case IOCTL_ZPRF_GET_BUFFER:
            return Park(irp, parameters.OutputBufferLength);
        case IOCTL_ZPRF_FLUSH:
            return Flush(irp);
        case IOCTL_ZPRF_SET_LOGGED_OPERATIONS:
            loggedOperations = *static_cast<ULONG*>(irp->AssociatedIrp.SystemBuffer);
            return Complete(irp, STATUS_SUCCESS);
        case IOCTL_ZPRF_SET_CAPTURE_MAX_SIZE:
        case IOCTL_ZPRF_SET_REPORT_ORIGINAL:
            return Complete(irp, STATUS_SUCCESS);
        case IOCTL_ZPRF_EXEMPT_ADD:
            return SetOnce(irp, hasExemption);
        case IOCTL_ZPRF_SET_DUMP_FILE:
            return SetOnce(irp, hasDumpFile);
        default:
            return Complete(irp, STATUS_INVALID_DEVICE_REQUEST);
    }
}

NTSTATUS NTAPI OnOpenOrClose(PDEVICE_OBJECT, PIRP irp) {
    return Complete(irp, STATUS_SUCCESS);
}

UNICODE_STRING Name(const wchar_t* text) {
    UNICODE_STRING name;
    RtlInitUnicodeString(&name, text);
    return name;
}

void NTAPI OnUnload(PDRIVER_OBJECT driver) {
    UNICODE_STRING link = Name(L"\\DosDevices\\zpregflt");
    IoDeleteSymbolicLink(&link);
    IoDeleteDevice(driver->DeviceObject);
}

}  // namespace

extern "C" NTSTATUS NTAPI DriverEntry(PDRIVER_OBJECT driver, PUNICODE_STRING) {
    InitializeListHead(&parked);
    driver->MajorFunction[IRP_MJ_CREATE] = OnOpenOrClose;
    driver->MajorFunction[IRP_MJ_CLOSE] = OnOpenOrClose;
    driver->MajorFunction[IRP_MJ_DEVICE_CONTROL] = OnControl;
    driver->DriverUnload = OnUnload;
    UNICODE_STRING device = Name(L"\\Device\\zpregflt");
    UNICODE_STRING link = Name(L"\\DosDevices\\zpregflt");
    PDEVICE_OBJECT object = nullptr;
    const NTSTATUS status =
        IoCreateDevice(driver, 0, &device, FILE_DEVICE_UNKNOWN, 0, FALSE, &object);
    return NT_SUCCESS(status) ? IoCreateSymbolicLink(&link, &device) : status;
}
