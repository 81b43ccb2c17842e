// Work items: a callback that a system worker thread runs at PASSIVE_LEVEL.
#pragma once

#include "platform/framework/object.h"

#include <condition_variable>
#include <mutex>

namespace platform::framework {

class WorkItem final : public Object {
public:
    static constexpr ObjectKind kKind = ObjectKind::kWorkItem;

    static NTSTATUS Create(const WDF_WORKITEM_CONFIG& config,
                           const WDF_OBJECT_ATTRIBUTES& attributes, Object& parent,
                           WorkItem** workItem);

    bool DriverMayDelete() const override { return true; }
    /// True also while the end of its parent deletes the item: that waits for the callback, in
    /// which the driver deletes it.
    bool DeleteByDriver() override;
    /// Does nothing while the item is queued. A queued item that starts to run counts as queued no
    /// longer, so the callback may enqueue its own item. False when the item has been deleted.
    bool Enqueue();
    /// Waits until the item is neither queued nor running; from inside its callback at once.
    void Flush();

protected:
    void ComeToRest() override;

private:
    WorkItem(Binding& owner, EVT_WDF_WORKITEM* function);
    ~WorkItem() override = default;
    void Run();
    bool BeginRun();
    void EndRun();

    EVT_WDF_WORKITEM* const function_;
    std::mutex lock_;  // guards everything below
    std::condition_variable atRest_;
    bool queued_ = false;
    unsigned running_ = 0;
    bool disposed_ = false;
    bool deletedByDriver_ = false;
};

}  // namespace platform::framework
