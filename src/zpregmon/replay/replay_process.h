// A recorded process, as it runs in the machine.
#pragma once

#include "platform/machine.h"

#include <cstdint>
#include <optional>
#include <unordered_map>

namespace zpregmon {

/// Never the handle of anything: no process opens that many.
inline HANDLE NoSuchHandle() {
    return reinterpret_cast<HANDLE>(std::uintptr_t{0x7FFFFFFC});
}

/// Used by one host thread at a time.
class ReplayProcess {
public:
    explicit ReplayProcess(platform::ObjectRef<platform::Process> process)
        : process_(std::move(process)) {}

    platform::Process& Process() const { return *process_; }

    /// The machine's handle for a recorded one; for 0 the null handle.
    HANDLE Find(std::uint64_t recorded) const {
        if (recorded == 0) {
            return nullptr;
        }
        const auto found = handles_.find(recorded);
        return found != handles_.end() ? found->second : NoSuchHandle();
    }
    void Map(std::uint64_t recorded, HANDLE handle) { handles_[recorded] = handle; }
    void Forget(std::uint64_t recorded) { handles_.erase(recorded); }

private:
    platform::ObjectRef<platform::Process> process_;
    std::unordered_map<std::uint64_t, HANDLE> handles_;
};

/// Makes the host thread one recorded thread after the other.
class RecordedThread {
public:
    /// From now on the host thread is thread `tid` of the process.
    void Enter(ReplayProcess& process, std::uint32_t tid) {
        if (scope_ && process_ == &process && tid_ == tid) {
            return;
        }
        Leave();
        scope_.emplace(process.Process(), tid);
        process_ = &process;
        tid_ = tid;
    }
    void Leave() {
        scope_.reset();
        process_ = nullptr;
    }

private:
    std::optional<platform::ThreadScope> scope_;
    ReplayProcess* process_ = nullptr;
    std::uint32_t tid_ = 0;
};

}  // namespace zpregmon
