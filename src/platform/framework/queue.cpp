#include "platform/framework/queue.h"

#include "platform/framework/contract.h"
#include "platform/framework/device.h"
#include "platform/framework/driver_callback.h"

namespace platform::framework {

namespace {

Request& RequestOf(LIST_ENTRY* link) {
    return *static_cast<RequestLink*>(link)->request;
}

bool HasHandler(const WDF_IO_QUEUE_CONFIG& config) {
    return config.EvtIoDefault != nullptr || config.EvtIoRead != nullptr ||
           config.EvtIoWrite != nullptr || config.EvtIoDeviceControl != nullptr ||
           config.EvtIoInternalDeviceControl != nullptr;
}

NTSTATUS CheckConfig(const WDF_IO_QUEUE_CONFIG& config) {
    const bool manual = config.DispatchType == WdfIoQueueDispatchManual;
    const bool parallel = config.DispatchType == WdfIoQueueDispatchParallel;
    if (!manual && !parallel && config.DispatchType != WdfIoQueueDispatchSequential) {
        return STATUS_INVALID_PARAMETER;
    }
    if (!parallel && config.Settings.Parallel.NumberOfPresentedRequests != 0) {
        return STATUS_INVALID_PARAMETER;
    }
    if (manual) return HasHandler(config) ? STATUS_INVALID_PARAMETER : STATUS_SUCCESS;
    return HasHandler(config) ? STATUS_SUCCESS : STATUS_WDF_NO_CALLBACK;
}

ULONG LimitOf(const WDF_IO_QUEUE_CONFIG& config) {
    switch (config.DispatchType) {
        case WdfIoQueueDispatchParallel:
            return config.Settings.Parallel.NumberOfPresentedRequests;
        case WdfIoQueueDispatchSequential:
            return 1;
        default:
            return 0;
    }
}

/// Marks that this thread is presenting requests of a limited queue. A request that ends in its own
/// handler makes the next one due; the outer presenter takes that, and the stack does not grow.
class PresentingScope {
public:
    explicit PresentingScope(const Queue& queue) : queue_(queue), outer_(innermost) {
        innermost = this;
    }
    ~PresentingScope() { innermost = outer_; }
    PresentingScope(const PresentingScope&) = delete;
    PresentingScope& operator=(const PresentingScope&) = delete;

    static bool Active(const Queue& queue) {
        for (const PresentingScope* scope = innermost; scope != nullptr; scope = scope->outer_) {
            if (&scope->queue_ == &queue) return true;
        }
        return false;
    }

private:
    const Queue& queue_;
    PresentingScope* outer_;
    static thread_local PresentingScope* innermost;
};
thread_local PresentingScope* PresentingScope::innermost = nullptr;

}  // namespace

Queue::Queue(Device& device, const WDF_IO_QUEUE_CONFIG& config)
    : Object(device.Owner(), kKind), device_(device), config_(config), limit_(LimitOf(config)) {
    InitializeListHead(&queued_);
    InitializeListHead(&taken_);
}

NTSTATUS Queue::Create(Device& device, const WDF_IO_QUEUE_CONFIG& config,
                       const WDF_OBJECT_ATTRIBUTES* attributes, Object& parent, Queue** queue) {
    NTSTATUS status = CheckConfig(config);
    if (!NT_SUCCESS(status)) return status;
    if (parent.NearestDevice() != &device) return STATUS_INVALID_DEVICE_REQUEST;
    auto* made = new Queue(device, config);
    status = made->Join(attributes, &parent);
    if (!NT_SUCCESS(status)) {
        made->Abandon();
        return status;
    }
    if (made->Scope() != WdfSynchronizationScopeNone ||
        made->Level() != WdfExecutionLevelDispatch) {
        Violation(Rule::kNotOffered,
                  "WdfIoQueueCreate: queues are offered only with synchronization scope None and "
                  "execution level Dispatch",
                  made->Handle());
    }
    status = device.AddQueue(*made, config.DefaultQueue != FALSE);
    if (!NT_SUCCESS(status)) {
        made->Abandon();
        return status;
    }
    *queue = made;
    return STATUS_SUCCESS;
}

// --- Requests come and go ------------------------------------------------------------------------

Queue::Arrival Queue::Enter(Request& request) {
    std::scoped_lock guard(lock_);
    if (!accepting_) return Arrival::kRefused;
    request.SetQueue(this);
    IRP& irp = request.Packet();
    if (IsUnlimited() && dispatching_) {
        // Due at once, in the thread that sends it; nobody else ever sees it queued.
        const bool cancelled = irp.cancelled.load();
        request.SetState(cancelled ? RequestState::kCancelling : RequestState::kFramework);
        InsertTailList(&taken_, &request.Link());
        ++busy_;
        return cancelled ? Arrival::kCancelled : Arrival::kPresent;
    }
    request.SetState(RequestState::kQueued);
    InsertTailList(&queued_, &request.Link());
    SetCancelRoutine(&irp, &OnCancelIrp);
    // Cancelled before the routine was there: whoever takes the routine out now cancels it.
    if (irp.cancelled.load() && SetCancelRoutine(&irp, nullptr) != nullptr) {
        TakeOut(request, RequestState::kCancelling);
        return Arrival::kCancelled;
    }
    return Arrival::kParked;
}

bool Queue::Accept(Request& request) {
    const ObjectPtr<Queue> keep(this);
    switch (Enter(request)) {
        case Arrival::kRefused:
            return false;
        case Arrival::kParked:
            PresentDue();
            break;
        case Arrival::kPresent:
            Present(request);
            break;
        case Arrival::kCancelled:
            FinishCancel(request, currentIrql);
            break;
    }
    return true;
}

NTSTATUS Queue::Forward(const char* function, Request& request, Queue& target) {
    const ObjectPtr<Queue> source(request.CurrentQueue());
    const bool elsewhere = &source->device_ != &target.device_;
    if (VerifierEnabled() && (source.get() == &target || elsewhere)) {
        return STATUS_INVALID_DEVICE_REQUEST;
    }
    request.LeaveDriver(function, RequestState::kFramework);
    {
        std::scoped_lock guard(source->lock_);
        RemoveEntryList(&request.Link());
    }
    if (!target.Accept(request)) {
        std::scoped_lock guard(source->lock_);
        InsertTailList(&source->taken_, &request.Link());
        request.SetState(RequestState::kDriver);
        return STATUS_WDF_BUSY;
    }
    source->Leave(nullptr);
    return STATUS_SUCCESS;
}

void Queue::Release(Request& request) {
    Leave(&request.Link());
}

void Queue::Leave(LIST_ENTRY* link) {
    StateCallback due;
    {
        std::scoped_lock guard(lock_);
        if (link != nullptr) RemoveEntryList(link);
        --busy_;
        ++leaving_;
        due = DueCallback();
    }
    // The queue does not come to rest, and so the driver does not go, before its callback returned.
    Run(due);
    {
        std::scoped_lock guard(lock_);
        --leaving_;
        atRest_.notify_all();
    }
    PresentDue();
}

void Queue::TakeOut(Request& request, RequestState next) {
    RemoveEntryList(&request.Link());
    InsertTailList(&taken_, &request.Link());
    ++busy_;
    request.SetState(next);
}

Request* Queue::FirstTakeable() {
    for (LIST_ENTRY* link = queued_.Flink; link != &queued_; link = link->Flink) {
        Request& request = RequestOf(link);
        if (SetCancelRoutine(&request.Packet(), nullptr) != nullptr) return &request;
    }
    return nullptr;
}

// --- Presenting ----------------------------------------------------------------------------------

void Queue::PresentDue() {
    if (IsManual() || PresentingScope::Active(*this)) return;
    const PresentingScope scope(*this);
    while (Request* request = TakeDue())
        Present(*request);
}

Request* Queue::TakeDue() {
    std::scoped_lock guard(lock_);
    if (!dispatching_ || busy_ >= limit_) return nullptr;
    Request* request = FirstTakeable();
    if (request != nullptr) TakeOut(*request, RequestState::kFramework);
    return request;
}

void Queue::Present(Request& request) {
    const IRP& irp = request.Packet();
    const bool emptyRead = irp.major == IRP_MJ_READ && irp.outputLength == 0;
    const bool emptyWrite = irp.major == IRP_MJ_WRITE && irp.inputLength == 0;
    if ((emptyRead || emptyWrite) && !config_.AllowZeroLengthRequests) {
        request.Finish(STATUS_SUCCESS, 0);
        return;
    }
    CallHandler(request);
}

void Queue::CallHandler(Request& request) {
    const auto queue = static_cast<WDFQUEUE>(Handle());
    const auto handle = static_cast<WDFREQUEST>(request.Handle());
    const IRP& irp = request.Packet();
    const auto give = [&](const char* name, auto* handler, auto... arguments) {
        request.MarkPresented();
        request.SetState(RequestState::kDriver);
        const DriverCallback callback(name);
        handler(queue, handle, arguments...);
    };
    const std::size_t output = irp.outputLength;
    const std::size_t input = irp.inputLength;
    if (irp.major == IRP_MJ_DEVICE_CONTROL && config_.EvtIoDeviceControl != nullptr) {
        give("EvtIoDeviceControl", config_.EvtIoDeviceControl, output, input, irp.controlCode);
    } else if (irp.major == IRP_MJ_INTERNAL_DEVICE_CONTROL &&
               config_.EvtIoInternalDeviceControl != nullptr) {
        give("EvtIoInternalDeviceControl", config_.EvtIoInternalDeviceControl, output, input,
             irp.controlCode);
    } else if (irp.major == IRP_MJ_READ && config_.EvtIoRead != nullptr) {
        give("EvtIoRead", config_.EvtIoRead, output);
    } else if (irp.major == IRP_MJ_WRITE && config_.EvtIoWrite != nullptr) {
        give("EvtIoWrite", config_.EvtIoWrite, input);
    } else if (config_.EvtIoDefault != nullptr) {
        give("EvtIoDefault", config_.EvtIoDefault);
    } else {
        request.Finish(STATUS_INVALID_DEVICE_REQUEST, 0);
    }
}

// --- What the driver takes out -------------------------------------------------------------------

NTSTATUS Queue::RetrieveNext(Request** request) {
    if (IsParallel()) return STATUS_INVALID_DEVICE_STATE;
    std::scoped_lock guard(lock_);
    if (!dispatching_) return STATUS_WDF_PAUSED;
    Request* found = FirstTakeable();
    if (found == nullptr) return STATUS_NO_MORE_ENTRIES;
    found->MarkPresented();
    TakeOut(*found, RequestState::kDriver);
    *request = found;
    return STATUS_SUCCESS;
}

bool Queue::Holds(const Request& request) const {
    return request.CurrentQueue() == this && request.State() == RequestState::kQueued;
}

NTSTATUS Queue::Find(Request* found, WDF_REQUEST_PARAMETERS* parameters, Request** request) {
    if (!IsManual()) return STATUS_INVALID_DEVICE_REQUEST;
    std::scoped_lock guard(lock_);
    if (found != nullptr && !Holds(*found)) return STATUS_NOT_FOUND;
    LIST_ENTRY* link = found == nullptr ? queued_.Flink : found->Link().Flink;
    for (; link != &queued_; link = link->Flink) {
        Request& candidate = RequestOf(link);
        const IRP& irp = candidate.Packet();
        if (irp.cancelled.load() || irp.cancelRoutine.load() == nullptr) continue;
        candidate.AddDriverReference();
        if (parameters != nullptr) candidate.GetParameters(*parameters);
        *request = &candidate;
        return STATUS_SUCCESS;
    }
    return STATUS_NO_MORE_ENTRIES;
}

NTSTATUS Queue::RetrieveFound(Request& found) {
    if (IsParallel()) return STATUS_INVALID_DEVICE_STATE;
    std::scoped_lock guard(lock_);
    if (!dispatching_) return STATUS_WDF_PAUSED;
    if (!Holds(found) || SetCancelRoutine(&found.Packet(), nullptr) == nullptr) {
        return STATUS_NOT_FOUND;
    }
    found.MarkPresented();
    TakeOut(found, RequestState::kDriver);
    return STATUS_SUCCESS;
}

// --- Cancelling ----------------------------------------------------------------------------------

void Queue::OnCancelIrp(DEVICE_OBJECT* /*device*/, IRP* irp) {
    auto& request = *static_cast<Request*>(irp->frameworkRequest);
    Queue& queue = *request.CurrentQueue();  // rests only when the request has left its list
    ObjectPtr<Queue> keep;
    {
        std::scoped_lock guard(queue.lock_);
        keep = ObjectPtr<Queue>(&queue);
        queue.TakeOut(request, RequestState::kCancelling);
    }
    // Windows calls back at any level up to this one; the highest shows what is not fit for it.
    queue.FinishCancel(request, DISPATCH_LEVEL);
}

template <typename Predicate>
void Queue::CancelQueued(Predicate wanted) {
    std::vector<Request*> cancelled;
    {
        std::scoped_lock guard(lock_);
        for (LIST_ENTRY* link = queued_.Flink; link != &queued_;) {
            Request& request = RequestOf(link);
            link = link->Flink;
            if (!wanted(request) || SetCancelRoutine(&request.Packet(), nullptr) == nullptr) {
                continue;
            }
            TakeOut(request, RequestState::kCancelling);
            cancelled.push_back(&request);
        }
    }
    for (Request* request : cancelled)
        FinishCancel(*request, currentIrql);
}

void Queue::FinishCancel(Request& request, KIRQL callbackLevel) {
    if (config_.EvtIoCanceledOnQueue == nullptr || !request.WasPresented()) {
        request.Finish(STATUS_CANCELLED, 0);
        return;
    }
    request.SetState(RequestState::kDriver);
    const KIRQL before = KfRaiseIrql(callbackLevel);
    {
        const CallbackCheck check("EvtIoCanceledOnQueue");
        config_.EvtIoCanceledOnQueue(static_cast<WDFQUEUE>(Handle()),
                                     static_cast<WDFREQUEST>(request.Handle()));
    }
    KeLowerIrql(before);
}

void Queue::CancelFile(const FileObject& file) {
    CancelQueued([&](const Request& request) { return request.Packet().file.get() == &file; });
}

// --- States --------------------------------------------------------------------------------------

void Queue::Start() {
    {
        std::scoped_lock guard(lock_);
        accepting_ = true;
        dispatching_ = true;
    }
    PresentDue();
}

bool Queue::SetCallback(EVT_WDF_IO_QUEUE_STATE* routine, WDFCONTEXT context, bool whenEmpty) {
    if (routine == nullptr) return true;
    if (callback_.routine != nullptr) return false;
    callback_ = {routine, context, whenEmpty};
    return true;
}

bool Queue::Stop(EVT_WDF_IO_QUEUE_STATE* complete, WDFCONTEXT context) {
    {
        std::scoped_lock guard(lock_);
        if (!SetCallback(complete, context, false)) return false;
        dispatching_ = false;
    }
    RunDueCallback();
    return true;
}

bool Queue::Purge(EVT_WDF_IO_QUEUE_STATE* complete, WDFCONTEXT context) {
    {
        std::scoped_lock guard(lock_);
        if (!SetCallback(complete, context, true)) return false;
        accepting_ = false;
    }
    CancelQueued([](const Request&) { return true; });
    RunDueCallback();
    return true;
}

Queue::StateCallback Queue::DueCallback() {
    if (busy_ != 0 || (callback_.whenEmpty && !IsListEmpty(&queued_))) return {};
    return std::exchange(callback_, {});
}

void Queue::RunDueCallback() {
    StateCallback due;
    {
        std::scoped_lock guard(lock_);
        due = DueCallback();
    }
    Run(due);
}

void Queue::Run(const StateCallback& callback) {
    if (callback.routine == nullptr) return;
    const CallbackCheck check("EvtIoQueueState");
    callback.routine(static_cast<WDFQUEUE>(Handle()), callback.context);
}

// --- The end -------------------------------------------------------------------------------------

std::string Queue::DescribeBusy() {
    std::scoped_lock guard(lock_);
    if (!IsListEmpty(&taken_)) return RequestOf(taken_.Flink).Describe();
    return "a request that is being passed on or cancelled";
}

void Queue::ComeToRest() {
    {
        std::scoped_lock guard(lock_);
        accepting_ = false;
    }
    CancelQueued([](const Request&) { return true; });
    const auto atRest = [this] { return busy_ == 0 && leaving_ == 0 && IsListEmpty(&queued_); };
    for (;;) {
        std::unique_lock guard(lock_);
        if (atRest_.wait_for(guard, kPatience, atRest)) return;
        guard.unlock();
        if (VerifierEnabled()) {
            Violation(Rule::kRequestNever,
                      Describe() + " is going away, but " + DescribeBusy() +
                          " was not completed by the driver",
                      Handle());
        }
    }
}

void Queue::Retire() {
    device_.RemoveQueue(*this);
}

}  // namespace platform::framework
