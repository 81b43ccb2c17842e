// Queues: which requests the driver gets when, and what becomes of those that are cancelled.
//
// A queued packet has the queue's cancel routine. Whoever takes the routine out of the packet by
// exchange (the queue to hand the request over, or the canceller) owns the request; the list itself
// changes only under the queue's lock. A request whose routine the canceller has taken stays linked
// until the canceller gets the lock, and everybody else passes over it.
#pragma once

#include "platform/framework/object.h"
#include "platform/framework/request.h"

#include <condition_variable>
#include <mutex>
#include <vector>

namespace platform::framework {

class Queue final : public Object {
public:
    static constexpr ObjectKind kKind = ObjectKind::kQueue;

    /// Statuses as WdfIoQueueCreate documents them; the parent is the device unless `attributes`
    /// name an object below it. `wantsHandle`: the driver asked for the handle.
    static NTSTATUS Create(Device& device, const WDF_IO_QUEUE_CONFIG& config,
                           const WDF_OBJECT_ATTRIBUTES* attributes, Object& parent, Queue** queue);

    Device& OwningDevice() const { return device_; }
    bool DriverMayDelete() const override { return !config_.DefaultQueue; }

    /// Takes a request over and presents it when it is due, in this thread; false when the queue
    /// accepts none. The request may be gone when this returns true.
    bool Accept(Request& request);
    /// The driver passes on a request that it got from another queue.
    static NTSTATUS Forward(const char* function, Request& request, Queue& target);
    /// A request that was taken out of this queue has been completed or passed on.
    void Release(Request& request);

    NTSTATUS RetrieveNext(Request** request);
    /// The first request after `found` (null: the first of all) that is not being cancelled, with a
    /// driver reference.
    NTSTATUS Find(Request* found, WDF_REQUEST_PARAMETERS* parameters, Request** request);
    NTSTATUS RetrieveFound(Request& found);

    void Start();
    /// The callback runs once the driver holds no request of the queue. False when another callback
    /// is still outstanding.
    bool Stop(EVT_WDF_IO_QUEUE_STATE* complete, WDFCONTEXT context);
    /// Likewise, once none is queued either.
    bool Purge(EVT_WDF_IO_QUEUE_STATE* complete, WDFCONTEXT context);
    /// Cancels the queued requests of a file object.
    void CancelFile(const FileObject& file);

protected:
    void ComeToRest() override;
    void Retire() override;

private:
    struct StateCallback {
        EVT_WDF_IO_QUEUE_STATE* routine = nullptr;
        WDFCONTEXT context = nullptr;
        bool whenEmpty = false;
    };

    Queue(Device& device, const WDF_IO_QUEUE_CONFIG& config);
    ~Queue() override = default;

    bool IsManual() const { return config_.DispatchType == WdfIoQueueDispatchManual; }
    bool IsParallel() const { return config_.DispatchType == WdfIoQueueDispatchParallel; }
    bool IsUnlimited() const { return limit_ == kUnlimited; }

    enum class Arrival { kRefused, kParked, kPresent, kCancelled };
    Arrival Enter(Request& request);
    void PresentDue();
    Request* TakeDue();
    void Present(Request& request);
    void CallHandler(Request& request);

    /// Takes one off the count of busy requests, and its link off the list of those taken out.
    void Leave(LIST_ENTRY* link);

    // With the lock.
    bool Holds(const Request& request) const;
    /// The first request whose cancellation has not begun, with its cancel routine taken out.
    Request* FirstTakeable();
    void TakeOut(Request& request, RequestState next);
    bool SetCallback(EVT_WDF_IO_QUEUE_STATE* routine, WDFCONTEXT context, bool whenEmpty);
    StateCallback DueCallback();

    static void OnCancelIrp(DEVICE_OBJECT* device, IRP* irp);
    template <typename Predicate>
    void CancelQueued(Predicate wanted);
    void FinishCancel(Request& request, KIRQL callbackLevel);
    void RunDueCallback();
    void Run(const StateCallback& callback);
    std::string DescribeBusy();

    static constexpr ULONG kUnlimited = 0xFFFFFFFF;

    Device& device_;
    const WDF_IO_QUEUE_CONFIG config_;
    const ULONG limit_;

    std::mutex lock_;  // guards everything below and the links of the requests
    std::condition_variable atRest_;
    LIST_ENTRY queued_;
    LIST_ENTRY taken_;         // out of the queue, not yet released
    std::size_t busy_ = 0;     // those, and the ones that are just passed on
    std::size_t leaving_ = 0;  // were busy; their thread still works on the queue
    bool accepting_ = true;
    bool dispatching_ = true;
    StateCallback callback_;
};

}  // namespace platform::framework
