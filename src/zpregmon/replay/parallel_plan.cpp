#include "zpregmon/replay/parallel_plan.h"

namespace zpregmon {

std::set<std::uint32_t> Participants(const Record& record) {
    if (record.op == Op::kDuplicate) {
        return {record.pid, record.fromPid, record.toPid};
    }
    return {record.pid};
}

ParallelPlan PlanParallelReplay(const Workload& workload) {
    ParallelPlan plan;
    plan.streams[0];
    std::vector<std::uint32_t> ended;
    for (const Record& record : workload.Records()) {
        if (record.op == Op::kProcessStart) {
            plan.streams[record.creator].push_back({&record});
            plan.streams[record.pid];
            if (record.creator == 0) {
                plan.endedBefore[&record] = ended;
            }
            continue;
        }
        const auto participants = Participants(record);
        for (const std::uint32_t pid : participants) {
            plan.streams[pid].push_back({&record, participants.size() > 1});
        }
        if (record.op == Op::kProcessExit) {
            ended.push_back(record.pid);
        }
    }
    return plan;
}

}  // namespace zpregmon
