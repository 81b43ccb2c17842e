#include "platform/kernel/fault_injection.h"

#include "platform/kernel/unseen_lock.h"

#include <mutex>
#include <stdexcept>
#include <thread>
#include <utility>

namespace platform {

namespace fault_detail {
std::atomic<bool> planned{false};
}

namespace {

/// The fault in force and its counts.
struct ActivePlan {
    PlannedFault fault;
    std::thread::id planner;
    std::uint64_t matching = 0;
    bool fired = false;

    bool Matches(const char* routine, std::uint32_t tag) const {
        if (fault.routine != "*" && fault.routine != routine) return false;
        if (fault.tag != 0 && fault.tag != tag) return false;
        return !fault.thisThreadOnly || planner == std::this_thread::get_id();
    }
};

UnseenLock planLock;
std::optional<ActivePlan> activePlan;  // behind planLock

constinit thread_local unsigned suspensions = 0;

}  // namespace

std::optional<NTSTATUS> NTAPI fault_detail::Ask(const char* routine, std::uint32_t tag) {
    if (suspensions != 0) return std::nullopt;
    const std::lock_guard guard(planLock);
    if (!activePlan || !activePlan->Matches(routine, tag)) return std::nullopt;
    ActivePlan& plan = *activePlan;
    ++plan.matching;
    const bool fails = plan.matching == plan.fault.nth ||
                       (plan.fault.andAllAfter && plan.matching > plan.fault.nth);
    if (!fails) return std::nullopt;
    plan.fired = true;
    return plan.fault.status;
}

FaultPlan::FaultPlan(PlannedFault fault) {
    if (fault.nth == 0) throw std::invalid_argument("FaultPlan: calls are numbered from 1");
    const std::lock_guard guard(planLock);
    if (activePlan) throw std::logic_error("FaultPlan: another fault is planned already");
    activePlan.emplace(ActivePlan{std::move(fault), std::this_thread::get_id()});
    fault_detail::planned = true;
}

FaultPlan::~FaultPlan() {
    const std::lock_guard guard(planLock);
    fault_detail::planned = false;
    activePlan.reset();
}

bool FaultPlan::Fired() const {
    const std::lock_guard guard(planLock);
    return activePlan->fired;
}

std::uint64_t FaultPlan::MatchingCalls() const {
    const std::lock_guard guard(planLock);
    return activePlan->matching;
}

NoFaults::NoFaults() {
    ++suspensions;
}

NoFaults::~NoFaults() {
    --suspensions;
}

}  // namespace platform
