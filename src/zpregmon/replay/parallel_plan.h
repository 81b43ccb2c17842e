// Who does what in a parallel replay: the records of each process, and where processes must meet.
#pragma once

#include "zpregmon/replay/workload.h"

#include <cstdint>
#include <map>
#include <set>
#include <vector>

namespace zpregmon {

/// One record in the stream of a process.
struct PlannedStep {
    const Record* record;
    /// The record needs several processes; the step of its own process (`pid`) carries it out, the
    /// steps of the others only wait.
    bool isMeeting = false;
};

struct ParallelPlan {
    /// By process; a start is in the stream of its creator, 0 standing for whoever is outside.
    std::map<std::uint32_t, std::vector<PlannedStep>> streams;
    /// For each start from outside, the processes that had ended before.
    std::map<const Record*, std::vector<std::uint32_t>> endedBefore;
};

/// The records that the plan refers to stay the workload's.
ParallelPlan PlanParallelReplay(const Workload& workload);

/// The processes that a record involves.
std::set<std::uint32_t> Participants(const Record& record);

}  // namespace zpregmon
