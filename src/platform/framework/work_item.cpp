#include "platform/framework/work_item.h"

#include "platform/framework/contract.h"
#include "platform/framework/function_table.h"

namespace platform::framework {

namespace {

/// The item whose callback this thread runs: to flush or delete it in there must not wait.
thread_local const WorkItem* runningHere = nullptr;

/// Whether the callback would have to be serialised with handlers under a lock that forbids its
/// level.
bool IsIncompatible(const WDF_WORKITEM_CONFIG& config, const Object& parent) {
    return config.AutomaticSerialization && parent.Scope() != WdfSynchronizationScopeNone &&
           parent.Level() != WdfExecutionLevelPassive;
}

}  // namespace

WorkItem::WorkItem(Binding& owner, EVT_WDF_WORKITEM* function)
    : Object(owner, kKind), function_(function) {}

NTSTATUS WorkItem::Create(const WDF_WORKITEM_CONFIG& config,
                          const WDF_OBJECT_ATTRIBUTES& attributes, Object& parent,
                          WorkItem** workItem) {
    if (parent.NearestDevice() == nullptr) return STATUS_INVALID_DEVICE_REQUEST;
    if (IsIncompatible(config, parent)) return STATUS_WDF_INCOMPATIBLE_EXECUTION_LEVEL;
    auto* made = new WorkItem(parent.Owner(), config.EvtWorkItemFunc);
    const NTSTATUS status = made->Join(&attributes, &parent);
    if (!NT_SUCCESS(status)) {
        made->Abandon();
        return status;
    }
    *workItem = made;
    return STATUS_SUCCESS;
}

bool WorkItem::DeleteByDriver() {
    {
        std::scoped_lock guard(lock_);
        if (std::exchange(deletedByDriver_, true)) return false;
    }
    Delete();
    return true;
}

bool WorkItem::Enqueue() {
    {
        std::scoped_lock guard(lock_);
        if (disposed_) return false;
        if (std::exchange(queued_, true)) return true;
    }
    Owner().RunOnWorker([keep = ObjectPtr<WorkItem>(this)] { keep->Run(); });
    return true;
}

bool WorkItem::BeginRun() {
    std::scoped_lock guard(lock_);
    queued_ = false;
    if (disposed_) return false;
    ++running_;
    return true;
}

void WorkItem::EndRun() {
    std::scoped_lock guard(lock_);
    --running_;
    atRest_.notify_all();
}

void WorkItem::Run() {
    if (!BeginRun()) return;
    runningHere = this;
    {
        const CallbackCheck check("EvtWorkItem");
        function_(static_cast<WDFWORKITEM>(Handle()));
    }
    runningHere = nullptr;
    EndRun();
}

void WorkItem::Flush() {
    if (runningHere == this) return;
    std::unique_lock guard(lock_);
    atRest_.wait(guard, [this] { return !queued_ && running_ == 0; });
}

void WorkItem::ComeToRest() {
    Flush();
    std::scoped_lock guard(lock_);
    disposed_ = true;
}

// --- Table functions -----------------------------------------------------------------------------

namespace {

NTSTATUS NTAPI WorkItemCreate(PWDF_DRIVER_GLOBALS globals, PWDF_WORKITEM_CONFIG config,
                              PWDF_OBJECT_ATTRIBUTES attributes, WDFWORKITEM* workItem) {
    const Call call(globals, "WdfWorkItemCreate", DISPATCH_LEVEL);
    call.NotNull(config, "Config");
    call.NotNull(workItem, "WorkItem");
    *workItem = nullptr;
    if (const auto fault = call.PlannedFault()) return *fault;
    if (config->Size != sizeof(*config)) return STATUS_INFO_LENGTH_MISMATCH;
    if (config->EvtWorkItemFunc == nullptr) return STATUS_INVALID_PARAMETER;
    NTSTATUS status = ValidateAttributes(attributes, ParentRule::kRequired);
    if (!NT_SUCCESS(status)) return status;
    WorkItem* made = nullptr;
    status = WorkItem::Create(*config, *attributes, call.ToObject(attributes->ParentObject), &made);
    if (NT_SUCCESS(status)) *workItem = static_cast<WDFWORKITEM>(made->Handle());
    return status;
}

void NTAPI WorkItemEnqueue(PWDF_DRIVER_GLOBALS globals, WDFWORKITEM handle) {
    const Call call(globals, "WdfWorkItemEnqueue", DISPATCH_LEVEL);
    if (!call.To<WorkItem>(handle).Enqueue()) {
        call.VerifierBreak("the work item was deleted", handle);
    }
}

WDFOBJECT NTAPI WorkItemGetParentObject(PWDF_DRIVER_GLOBALS globals, WDFWORKITEM handle) {
    const Call call(globals, "WdfWorkItemGetParentObject", DISPATCH_LEVEL);
    return call.To<WorkItem>(handle).Parent()->Handle();
}

void NTAPI WorkItemFlush(PWDF_DRIVER_GLOBALS globals, WDFWORKITEM handle) {
    const Call call(globals, "WdfWorkItemFlush", PASSIVE_LEVEL);
    call.To<WorkItem>(handle).Flush();
}

}  // namespace

void AddWorkItemFunctions(FunctionTable& table) {
    table.Set(WdfWorkItemCreateTableIndex, &WorkItemCreate);
    table.Set(WdfWorkItemEnqueueTableIndex, &WorkItemEnqueue);
    table.Set(WdfWorkItemGetParentObjectTableIndex, &WorkItemGetParentObject);
    table.Set(WdfWorkItemFlushTableIndex, &WorkItemFlush);
}

}  // namespace platform::framework
