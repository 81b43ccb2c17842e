#include "zpregmon/replay/parallel_plan.h"
#include "zpregmon/replay/process_start.h"
#include "zpregmon/replay/registry_call.h"
#include "zpregmon/replay/replayer.h"

#include <condition_variable>
#include <exception>
#include <map>
#include <memory>
#include <mutex>
#include <set>
#include <thread>
#include <vector>

namespace zpregmon {

namespace {

class ParallelReplay {
public:
    ParallelReplay(platform::Machine& machine, const Workload& workload, ReplayControl& control)
        : machine_(machine),
          workload_(workload),
          control_(control),
          plan_(PlanParallelReplay(workload)) {}

    ReplayResult Run() {
        RunStream(0);
        JoinAll();
        if (failure_) {
            std::rethrow_exception(failure_);
        }
        return std::move(result_);
    }

private:
    struct Meeting {
        std::size_t waiting = 0;  ///< participants that have come, besides the one that acts
        bool acting = false;      ///< from now on nobody leaves before it is done
        bool done = false;
    };

    /// Runs on the stream's own thread; stream 0 on the caller's.
    void RunStream(std::uint32_t pid) {
        std::uint64_t operations = 0;
        try {
            RunSteps(pid, operations);
        } catch (...) {
            const std::lock_guard guard(lock_);
            failure_ = std::current_exception();
            control_.stop = true;
        }
        EndStream(pid, operations);
    }

    void RunSteps(std::uint32_t pid, std::uint64_t& operations) {
        RegistryCaller caller(hives_);
        RecordedThread thread;
        std::uint64_t sinceLast = 0;
        for (const PlannedStep& step : plan_.streams.at(pid)) {
            if (sinceLast++ % ReplayControl::kPaceInterval == 0 && !GoOn()) {
                return;
            }
            const Record& record = *step.record;
            const bool acts = record.op == Op::kProcessStart || record.pid == pid;
            if (step.isMeeting && !(acts ? AwaitOthers(record) : AwaitMeeting(record))) {
                return;
            }
            if (!acts) {
                continue;
            }
            if (record.op == Op::kProcessStart && !AwaitEnded(record)) {
                return;
            }
            Replay(record, caller, thread);
            operations += IsCall(record.op) ? 1 : 0;
            if (step.isMeeting) {
                EndMeeting(record);
            }
            control_.done.fetch_add(1, std::memory_order_relaxed);
            if (record.op == Op::kProcessExit) {
                return;
            }
        }
    }

    bool GoOn() {
        if (control_.pace) {
            control_.pace();
        }
        return !control_.stop.load(std::memory_order_relaxed);
    }

    void Replay(const Record& record, RegistryCaller& caller, RecordedThread& thread) {
        if (record.op == Op::kProcessStart) {
            Start(record);
        } else if (record.op == Op::kProcessExit) {
            thread.Leave();  // the stream's end does the rest
        } else if (record.op == Op::kDuplicate) {
            thread.Enter(Find(record.pid), record.tid);
            RegistryCaller::Duplicate(record, Find(record.fromPid), Find(record.toPid));
        } else if (IsCall(record.op)) {
            ReplayProcess& process = Find(record.pid);
            thread.Enter(process, record.tid);
            caller.Call(record, process);
        }
    }

    void Start(const Record& record) {
        auto process = StartRecordedProcess(machine_, workload_, record);
        const std::lock_guard guard(lock_);
        processes_[record.pid] = std::move(process);
        ++result_.processes;
        threads_.emplace_back([this, pid = record.pid] { RunStream(pid); });
    }

    ReplayProcess& Find(std::uint32_t pid) {
        const std::lock_guard guard(lock_);
        return *processes_.at(pid);
    }

    /// Waits for what the creator of the process knew to be over.
    bool AwaitEnded(const Record& start) {
        const auto found = plan_.endedBefore.find(&start);
        if (found == plan_.endedBefore.end()) {
            return true;
        }
        return Await([&] {
            for (const std::uint32_t pid : found->second) {
                if (!ended_.contains(pid)) {
                    return false;
                }
            }
            return true;
        });
    }

    /// As Await; after true the others stay until EndMeeting.
    bool AwaitOthers(const Record& record) {
        const std::size_t others = Participants(record).size() - 1;
        return Await([&] {
            Meeting& meeting = meetings_[&record];
            meeting.acting = meeting.waiting == others;
            return meeting.acting;
        });
    }

    bool AwaitMeeting(const Record& record) {
        std::unique_lock guard(lock_);
        Meeting& meeting = meetings_[&record];
        ++meeting.waiting;
        changed_.notify_all();
        changed_.wait(guard, [&] { return meeting.done || (endsEarly_ && !meeting.acting); });
        if (!meeting.done) {
            --meeting.waiting;
        }
        return meeting.done;
    }

    void EndMeeting(const Record& record) {
        const std::lock_guard guard(lock_);
        meetings_[&record].done = true;
        changed_.notify_all();
    }

    /// False when the replay ends early and the condition may never come.
    template <typename Condition>
    bool Await(Condition condition) {
        std::unique_lock guard(lock_);
        changed_.wait(guard, [&] { return condition() || endsEarly_; });
        return condition();
    }

    void EndStream(std::uint32_t pid, std::uint64_t operations) {
        if (pid != 0) {
            machine_.ExitProcess(Find(pid).Process());
        }
        const std::lock_guard guard(lock_);
        ended_.insert(pid);
        processes_.erase(pid);
        endsEarly_ = endsEarly_ || control_.stop;
        result_.operations += operations;
        changed_.notify_all();
    }

    /// A thread that is joined may have started others before.
    void JoinAll() {
        for (;;) {
            std::vector<std::thread> threads;
            {
                const std::lock_guard guard(lock_);
                threads.swap(threads_);
            }
            if (threads.empty()) {
                return;
            }
            for (std::thread& thread : threads) {
                thread.join();
            }
        }
    }

    platform::Machine& machine_;
    const Workload& workload_;
    ReplayControl& control_;
    const ParallelPlan plan_;
    HiveFiles hives_;

    std::mutex lock_;
    std::condition_variable changed_;
    // Guarded by lock_:
    std::map<std::uint32_t, std::unique_ptr<ReplayProcess>> processes_;
    std::vector<std::thread> threads_;
    std::set<std::uint32_t> ended_;
    std::map<const Record*, Meeting> meetings_;
    bool endsEarly_ = false;
    std::exception_ptr failure_;
    ReplayResult result_;
};

}  // namespace

ReplayResult ReplayInParallel(platform::Machine& machine, const Workload& workload,
                              ReplayControl& control) {
    return ParallelReplay(machine, workload, control).Run();
}

}  // namespace zpregmon
