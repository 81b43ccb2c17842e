#include "zpregmon/replay/process_start.h"
#include "zpregmon/replay/registry_call.h"
#include "zpregmon/replay/replayer.h"

#include <map>
#include <memory>

namespace zpregmon {

namespace {

class OrderedReplay {
public:
    OrderedReplay(platform::Machine& machine, const Workload& workload, bool check,
                  ReplayControl& control)
        : machine_(machine), workload_(workload), check_(check), control_(control) {}

    ReplayResult Run() {
        std::uint64_t count = 0;
        for (const Record& record : workload_.Records()) {
            if (count % ReplayControl::kPaceInterval == 0 && !GoOn(count)) {
                break;
            }
            Replay(record);
            ++count;
        }
        control_.done.store(count, std::memory_order_relaxed);
        while (!processes_.empty()) {
            Exit(processes_.begin()->first, 0);
        }
        result_.check = checker_.Finish();
        return std::move(result_);
    }

private:
    bool GoOn(std::uint64_t count) {
        control_.done.store(count, std::memory_order_relaxed);
        if (control_.pace) {
            control_.pace();
        }
        return !control_.stop.load(std::memory_order_relaxed);
    }

    void Replay(const Record& record) {
        if (record.op == Op::kProcessStart) {
            thread_.Leave();
            processes_[record.pid] = StartRecordedProcess(machine_, workload_, record);
            ++result_.processes;
        } else if (record.op == Op::kProcessExit) {
            Exit(record.pid, record.exitCode);
        } else if (IsCall(record.op)) {
            Call(record);
        }
    }

    void Call(const Record& record) {
        ReplayProcess& process = *processes_.at(record.pid);
        thread_.Enter(process, record.tid);
        const Outcome outcome =
            record.op == Op::kDuplicate
                ? RegistryCaller::Duplicate(record, *processes_.at(record.fromPid),
                                            *processes_.at(record.toPid))
                : caller_.Call(record, process);
        ++result_.operations;
        if (control_.answered) {
            control_.answered(record, outcome);
        }
        if (check_) {
            checker_.Check(record, outcome);
        }
    }

    void Exit(std::uint32_t pid, std::uint32_t exitCode) {
        thread_.Leave();
        const auto found = processes_.find(pid);
        machine_.ExitProcess(found->second->Process(), static_cast<NTSTATUS>(exitCode));
        processes_.erase(found);
        checker_.ProcessExited(pid);
    }

    platform::Machine& machine_;
    const Workload& workload_;
    const bool check_;
    ReplayControl& control_;
    std::map<std::uint32_t, std::unique_ptr<ReplayProcess>> processes_;
    RecordedThread thread_;  // goes before the processes do
    HiveFiles hives_;
    RegistryCaller caller_{hives_};
    Checker checker_;
    ReplayResult result_;
};

}  // namespace

ReplayResult ReplayInOrder(platform::Machine& machine, const Workload& workload, bool check,
                           ReplayControl& control) {
    return OrderedReplay(machine, workload, check, control).Run();
}

}  // namespace zpregmon
