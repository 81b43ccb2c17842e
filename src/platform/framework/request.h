// Requests: what the driver sees of a request packet.
//
// At any time a request belongs to exactly one party: the framework, the driver, a queue, or the
// one who cancels it. The state says to whom; it changes only from the owner's side, in a queue
// under that queue's lock. The object outlives its packet as long as somebody references it.
#pragma once

#include "platform/framework/object.h"
#include "platform/kernel/io.h"

#include <atomic>

namespace platform::framework {

class Call;
class Queue;
class Request;

/// A request's place in the list of its queue or of its device.
struct RequestLink : LIST_ENTRY {
    Request* request = nullptr;
};

enum class RequestState {
    kFramework,   ///< on its way to the driver or to a queue
    kDriver,      ///< the driver must complete it or pass it on
    kQueued,      ///< waits in a queue
    kCancelling,  ///< taken out of its queue by whoever cancels it
    kCompleted,   ///< the packet is gone
};

class Request final : public Object {
public:
    static constexpr ObjectKind kKind = ObjectKind::kRequest;

    Request(Device& device, IRP& irp);

    Device* NearestDevice() override { return &device_; }

    /// Only for the party that the request belongs to.
    IRP& Packet() const { return *irp_; }
    bool IsCompleted() const { return State() == RequestState::kCompleted; }

    RequestState State() const { return state_.load(std::memory_order_acquire); }
    void SetState(RequestState state) { state_.store(state, std::memory_order_release); }
    /// The queue that the request waits in or was presented from; null before the first one.
    Queue* CurrentQueue() const { return queue_.load(std::memory_order_acquire); }
    void SetQueue(Queue* queue) { queue_.store(queue, std::memory_order_release); }
    RequestLink& Link() { return link_; }

    /// Whether the driver has ever seen the request; decides how it is cancelled.
    bool WasPresented() const { return presented_; }
    void MarkPresented() { presented_ = true; }

    void SetInformation(ULONG_PTR information) { information_ = information; }
    void GetParameters(WDF_REQUEST_PARAMETERS& parameters) const;

    /// The driver gives the request up: moves it from kDriver to `next`. A request that is not the
    /// driver's is a violation that names who has it.
    void LeaveDriver(const char* function, RequestState next);
    /// A violation unless the driver owns the request.
    void RequireDriver(const char* function) const;

    /// Moreover a framework bugcheck while the driver references memory objects of the request.
    void RequireCompletable(const char* function);

    /// Ends the request; the caller has it in a state other than kQueued. The object may be gone
    /// afterwards.
    void Finish(NTSTATUS status, ULONG_PTR information);
    /// The end with the information that the driver set before.
    void Finish(NTSTATUS status) { Finish(status, information_); }

    /// Locks a buffer of the sender for writing; the memory object is the request's child.
    NTSTATUS LockForWrite(void* buffer, std::size_t length, WDFMEMORY* memory);

protected:
    bool NeedsPassive() const override { return false; }

private:
    ~Request() override = default;
    [[noreturn]] void NotTheDrivers(const char* function, RequestState actual) const;

    Device& device_;  // outlives the request: the reference below
    ObjectPtr<Object> keepDevice_;
    IRP* irp_;
    std::atomic<RequestState> state_{RequestState::kFramework};
    std::atomic<Queue*> queue_{nullptr};
    RequestLink link_;
    bool presented_ = false;
    ULONG_PTR information_ = 0;
};

}  // namespace platform::framework
