// Making platform calls fail on demand, so that each failure path of kernel code can be walked.
//
// Every routine that can fail asks FailThisCall(its name) first. While no fault is planned that is
// one relaxed load.
#pragma once

#include <wdm.h>

#include <atomic>
#include <cstdint>
#include <map>
#include <optional>
#include <string>
#include <string_view>

namespace platform {

/// One planned fault: the calls of `routine` (with `tag`, if given) numbered from 1 since the plan
/// was made; call `nth` fails, and with `andAllAfter` every later one too. `thisThreadOnly` counts
/// and fails only calls of the planning thread.
struct PlannedFault {
    std::string routine;  ///< "*" means every routine that can fail
    std::uint32_t tag = 0;
    std::uint64_t nth = 1;
    bool andAllAfter = false;
    bool thisThreadOnly = false;
    /// What a routine with a status returns; routines that return a pointer return null.
    NTSTATUS status = STATUS_INSUFFICIENT_RESOURCES;
};

/// Installs a fault for its lifetime; one at a time. Also counts the matching calls, so that a walk
/// knows when it is through: it ends when Fired() is false.
class FaultPlan {
public:
    explicit FaultPlan(PlannedFault fault);
    ~FaultPlan();
    FaultPlan(const FaultPlan&) = delete;
    FaultPlan& operator=(const FaultPlan&) = delete;

    bool Fired() const;
    std::uint64_t MatchingCalls() const;
};

/// Suspends injection on this thread for its lifetime: set-up and checks inside a walk.
class NoFaults {
public:
    NoFaults();
    ~NoFaults();
    NoFaults(const NoFaults&) = delete;
    NoFaults& operator=(const NoFaults&) = delete;
};

namespace fault_detail {
extern std::atomic<bool> planned;
std::optional<NTSTATUS> NTAPI Ask(const char* routine, std::uint32_t tag);
}  // namespace fault_detail

/// The status with which this call must fail, or nothing when it is to go on.
inline std::optional<NTSTATUS> FailThisCall(const char* routine, std::uint32_t tag = 0) {
    if (!fault_detail::planned.load(std::memory_order_relaxed)) {
        return std::nullopt;
    }
    return fault_detail::Ask(routine, tag);
}

}  // namespace platform
