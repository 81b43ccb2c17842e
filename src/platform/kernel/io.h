// The input/output manager: drivers, devices, file objects and request packets.
//
// DEVICE_OBJECT and IRP are the platform's own: no driver of ours looks inside them. The framework
// does.
//
// References: a file object keeps its device, a packet its file object. So an IRP_MJ_CLOSE comes
// when the last handle is closed and the last packet is finished.
#pragma once

#include <wdm.h>

#include "platform/kernel/object.h"
#include "platform/kernel/process.h"
#include "platform/kernel/security.h"

#include <atomic>
#include <cstddef>
#include <functional>
#include <memory>
#include <mutex>
#include <string>
#include <string_view>
#include <vector>

namespace platform {
class FileObject;
class LockedPages;
class UserRegion;

/// The life of a packet. kActive: its driver owns it; kCompleting: CompleteIrp is at work; kDone:
/// finished, kept only by those who hold a reference; kFreed: in quarantine.
enum class PacketState : std::uint32_t {
    kActive = 0x49525031,
    kCompleting,
    kDone,
    kFreed,
};
}  // namespace platform

struct DEVICE_OBJECT {
    PDRIVER_OBJECT driver = nullptr;
    std::u16string name;
    platform::SecurityDescriptor security;
    DEVICE_TYPE type = FILE_DEVICE_UNKNOWN;
    bool exclusive = false;
    std::atomic<bool> initializing{true};  ///< opens fail with STATUS_NO_SUCH_DEVICE
    void* extension = nullptr;             ///< the framework's device object

    // The I/O manager's own, under its device lock.
    bool deleted = false;
    long openFiles = 0;             ///< file objects between admission and IRP_MJ_CLOSE
    DEVICE_OBJECT* next = nullptr;  ///< of the same driver, from DRIVER_OBJECT::DeviceObject
};

using CancelRoutine = void (*)(DEVICE_OBJECT* device, IRP* irp);

struct IRP {
    UCHAR major = 0;
    ULONG controlCode = 0;
    ULONG inputLength = 0;
    ULONG outputLength = 0;
    void* type3InputBuffer = nullptr;            ///< METHOD_NEITHER: the caller's input address
    void* userBuffer = nullptr;                  ///< METHOD_NEITHER: the caller's output address
    std::unique_ptr<std::byte[]> systemBuffer;   ///< METHOD_BUFFERED in and out; DIRECT: the input
    std::unique_ptr<platform::LockedPages> mdl;  ///< DIRECT: the locked output buffer
    LONGLONG byteOffset = 0;
    KPROCESSOR_MODE requestorMode = UserMode;
    platform::ObjectRef<platform::FileObject> file;
    platform::ObjectRef<platform::Thread> thread;  ///< that sent the request
    NTSTATUS status = STATUS_PENDING;
    ULONG_PTR information = 0;
    std::atomic<bool> cancelled{false};
    std::atomic<CancelRoutine> cancelRoutine{nullptr};
    void* frameworkRequest = nullptr;
    /// Called once by CompleteIrp, before the packet counts as finished.
    std::function<void(IRP&)> completed;

    // The I/O manager's own. CompleteIrp drops the reference that the packet was made with; the
    // sender and a canceller hold their own, so neither can meet a packet that is gone.
    PIO_STATUS_BLOCK userStatus = nullptr;  ///< by which NtCancelIoFileEx names the request
    std::atomic<long> references{1};
    std::atomic<platform::PacketState> state{platform::PacketState::kActive};
};

namespace platform {

/// A buffer of the calling process, probed and held in memory. Memory from AllocateUserMemory gets
/// an address of the kernel's own; with the verifier on, writing there after the pages were
/// unlocked faults, as it does on Windows. Other memory is used at the caller's address.
class LockedPages {
public:
    /// STATUS_ACCESS_VIOLATION when the range is not the process's, writable memory. PASSIVE_LEVEL.
    static NTSTATUS Lock(void* userAddress, std::size_t length,
                         std::unique_ptr<LockedPages>& pages);
    ~LockedPages();
    LockedPages(const LockedPages&) = delete;
    LockedPages& operator=(const LockedPages&) = delete;
    void* SystemAddress() const { return address_; }
    std::size_t Length() const { return length_; }

private:
    LockedPages() = default;
    NTSTATUS MapRegionPart(std::byte* userAddress);

    std::shared_ptr<UserRegion> region_;  ///< null: not from AllocateUserMemory
    void* mapping_ = nullptr;             ///< made for this lock alone; null: none was
    std::size_t mappingSize_ = 0;
    void* address_ = nullptr;
    std::size_t length_ = 0;
};

/// Memory of a user process that can be locked: page-aligned, zeroed, followed by a page that
/// faults. Null when there is no memory.
void* AllocateUserMemory(std::size_t size);
/// Null is ignored. Pages that are locked live on until they are unlocked.
void FreeUserMemory(void* address);

/// STATUS_OBJECT_NAME_COLLISION when the name is taken; an empty name makes a nameless device. The
/// device starts initializing. PASSIVE_LEVEL.
NTSTATUS CreateDevice(PDRIVER_OBJECT driver, std::u16string_view name,
                      const SecurityDescriptor& security, DEVICE_TYPE type, bool exclusive,
                      DEVICE_OBJECT** device);
/// Removes the name and the shutdown notification at once; the object goes with its last open file.
void DeleteDevice(DEVICE_OBJECT* device);

/// NotifyShutdown calls `notify` (PASSIVE_LEVEL) until the device is unregistered, the device that
/// was registered last first. Unregistering waits for a notification that runs on another thread.
void RegisterShutdown(DEVICE_OBJECT* device, std::function<void()> notify);
void UnregisterShutdown(DEVICE_OBJECT* device);
void NotifyShutdown();

/// Sets the routine that runs when the request is cancelled and returns the one before; null means
/// that the request cannot be cancelled now. Whoever gets a routine back that it had set owns the
/// packet: cancellation takes the routine out by the same exchange before it calls it. Who sets a
/// routine looks at `cancelled` afterwards: cancellation may have come before. Any IRQL.
CancelRoutine SetCancelRoutine(IRP* irp, CancelRoutine routine);
/// Marks the packet cancelled and runs its cancel routine, if it has one; true when it ran. The
/// caller keeps the packet from going away meanwhile. IRQL <= DISPATCH_LEVEL.
bool CancelIrp(IRP* irp);
/// Finishes the packet with its status and information, of which no cancel routine may be set any
/// more; for its driver the packet is gone afterwards. IRQL <= DISPATCH_LEVEL.
void CompleteIrp(IRP* irp);

/// An open file or device: with a device, or else with a file of the host.
class FileObject {
public:
    ObjectRef<DEVICE_OBJECT> device;
    int hostFile = -1;
    bool synchronous = true;
    std::u16string name;

    std::mutex irpsLock;     ///< of `irps`
    std::vector<IRP*> irps;  ///< sent to the driver and not yet completed

    /// One request at a time on a synchronous file, as long as the request lasts.
    std::mutex turnLock;
    LONGLONG position = 0;   ///< of a host file; under turnLock
    bool opened = false;     ///< its driver has accepted it
    bool cleanedUp = false;  ///< IRP_MJ_CLEANUP was sent

    FileObject() = default;
    ~FileObject();
    FileObject(const FileObject&) = delete;
    FileObject& operator=(const FileObject&) = delete;
};

extern const ObjectType kDeviceType;
extern const ObjectType kDriverType;
extern const ObjectType kFileType;

/// The name by which NtCreateFile opens a file of the host: \??\Host and then the file's absolute
/// path with backslashes for slashes, e.g. \??\Host\tmp\x. Slashes may stay, too.
std::u16string HostFileName(std::string_view hostPath);

/// Driver objects by service name, made and called by the machine's loader. Every dispatch routine
/// refuses with STATUS_INVALID_DEVICE_REQUEST until the driver sets its own.
DRIVER_OBJECT* CreateDriverObject(std::u16string_view serviceName);
/// No device of the driver may be left.
void DeleteDriverObject(DRIVER_OBJECT* driver);
/// Whether a device of the driver is still open, deleted ones among them. When the last one closes
/// the I/O manager calls OnDriverDevicesClosed of the loader.
bool DriverHasOpenDevices(DRIVER_OBJECT* driver);
/// Refuses further opens of the driver's devices (STATUS_NO_SUCH_DEVICE); true when none is open
/// now, so that the driver can go.
bool PrepareDriverUnload(DRIVER_OBJECT* driver);
/// For a machine that was stopped: the driver gets no request any more (they are refused), and its
/// devices leave the name space and the shutdown list.
void AbandonDriver(DRIVER_OBJECT* driver);
/// What the I/O manager does after DriverEntry has succeeded: clears `initializing` everywhere.
void FinishDriverInitialization(DRIVER_OBJECT* driver);

}  // namespace platform
