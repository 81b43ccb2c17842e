// Control devices.
//
// The framework device lives until the driver object goes, or, when the driver deletes it, until
// the last file that was opened on it is closed; the kernel's device object and its names then go
// at once.
#pragma once

#include "platform/framework/device_init.h"
#include "platform/framework/object.h"
#include "platform/framework/request.h"
#include "platform/kernel/io.h"

#include <condition_variable>
#include <mutex>
#include <string>
#include <string_view>
#include <vector>

namespace platform::framework {

class Driver;
class Queue;

class Device final : public Object {
public:
    static constexpr ObjectKind kKind = ObjectKind::kDevice;

    /// STATUS_INVALID_SECURITY_DESCR for a security string without a name; otherwise what parsing
    /// the string and making the device object give.
    static NTSTATUS Create(Driver& driver, const WDFDEVICE_INIT& init,
                           const WDF_OBJECT_ATTRIBUTES* attributes, Device** device);

    Device* NearestDevice() override { return this; }
    DEVICE_OBJECT* KernelDevice() const { return deviceObject_; }
    WDF_DEVICE_IO_TYPE IoType() const { return ioType_; }
    bool DriverMayDelete() const override { return true; }
    bool DeleteByDriver() override;

    /// STATUS_INVALID_DEVICE_STATE when the device has no name of its own,
    /// STATUS_INVALID_DEVICE_REQUEST for an empty or a second link.
    NTSTATUS CreateSymbolicLink(std::u16string_view link);
    /// From here on the device can be opened.
    void FinishInitializing() { deviceObject_->initializing = false; }

    /// As the default queue: STATUS_UNSUCCESSFUL for a second one, STATUS_INVALID_DEVICE_STATE once
    /// the device can be opened.
    NTSTATUS AddQueue(Queue& queue, bool isDefault);
    void RemoveQueue(Queue& queue);

    /// A read, write or control packet, in the sender's thread.
    void Receive(IRP& irp);
    /// The driver hands over a request that it got in EvtIoInCallerContext.
    NTSTATUS EnqueueFromCaller(const char* function, Request& request);
    /// A request that was in no queue has been completed.
    void ReleaseUnqueued(Request& request);

    NTSTATUS OpenFile();
    /// Cancels what the file still has in the queues.
    void CleanUpFile(const FileObject& file);
    /// May delete the device.
    void CloseFile();

protected:
    void BeginDisposal() override;
    void ComeToRest() override;
    void Retire() override;

private:
    Device(Driver& driver, const WDFDEVICE_INIT& init, DEVICE_OBJECT* deviceObject);
    ~Device() override = default;

    void RegisterForShutdown();
    void RemoveFromKernel();
    ObjectPtr<Queue> DefaultQueue();
    void PresentInCallersContext(Request& request);
    /// False when the queue accepts none: the request is then still unqueued.
    bool GiveToQueue(Queue& queue, Request& request);
    void RouteNew(Request& request);
    void WaitForUnqueued();

    DEVICE_OBJECT* deviceObject_;  // valid until Retire
    const bool named_;
    const WDF_DEVICE_IO_TYPE ioType_;
    const bool exclusive_;
    EVT_WDF_IO_IN_CALLER_CONTEXT* const inCallerContext_;
    EVT_WDF_DEVICE_SHUTDOWN_NOTIFICATION* const shutdown_;
    const UCHAR shutdownFlags_;

    std::mutex lock_;  // guards everything below
    std::condition_variable changed_;
    std::u16string link_;
    std::vector<Queue*> queues_;
    Queue* defaultQueue_ = nullptr;
    LIST_ENTRY unqueued_;            // requests of the driver that were in no queue yet
    std::size_t unqueuedCount_ = 0;  // those, and the ones that are just handed to a queue
    long openFiles_ = 0;
    bool removed_ = false;  // from the kernel's name space
    bool deleteWithLastFile_ = false;
};

}  // namespace platform::framework
