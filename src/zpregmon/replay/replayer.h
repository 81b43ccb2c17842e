// Repeats a workload on a machine.
#pragma once

#include "platform/machine.h"
#include "zpregmon/replay/checker.h"
#include "zpregmon/replay/workload.h"

#include <atomic>
#include <cstdint>
#include <functional>

namespace zpregmon {

/// How a replay and the rest of the program talk while it runs.
struct ReplayControl {
    /// Records of one thread between two calls of `pace`.
    static constexpr std::uint64_t kPaceInterval = 64;

    /// Records that are done.
    std::atomic<std::uint64_t> done{0};
    /// Set by anybody: the replay ends early.
    std::atomic<bool> stop{false};
    /// Called every now and then by each thread that replays, before it goes on; it may wait.
    std::function<void()> pace;
    /// Sees each call's outcome in a replay in order.
    std::function<void(const Record&, const Outcome&)> answered;
};

struct ReplayResult {
    std::uint64_t operations = 0;  ///< calls that were made
    std::uint64_t processes = 0;
    CheckResult check;  ///< of a checked replay
};

/// Every record in file order, on one host thread that is one recorded thread after the other.
/// Processes that the workload leaves running are ended. Throws WorkloadError when the machine
/// refuses to start a process.
ReplayResult ReplayInOrder(platform::Machine& machine, const Workload& workload, bool check,
                           ReplayControl& control);

/// Every recorded process on a host thread of its own, which keeps the order of the process's
/// records. A process is started by its creator's thread; one that was started from outside waits
/// for those that had ended by then. A handle that goes from one process to another is passed on
/// when both have come to that record. Results depend on how the threads meet, so that nothing is
/// checked.
ReplayResult ReplayInParallel(platform::Machine& machine, const Workload& workload,
                              ReplayControl& control);

}  // namespace zpregmon
