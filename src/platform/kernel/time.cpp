#include "platform/kernel/time.h"

#include "platform/kernel/futex.h"
#include "platform/kernel/verifier.h"

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <mutex>
#include <thread>

namespace platform {

namespace {

constexpr std::int64_t kUnitsPerSecond = 10'000'000;
constexpr std::int64_t kNanosecondsPerUnit = 100;
constexpr std::int64_t kUnixEpoch = 11'644'473'600 * kUnitsPerSecond;
constexpr auto kTick = std::chrono::milliseconds(1);

constinit std::atomic<std::int64_t> stoppedAt{0};

void Publish() {
    __atomic_store_n(&KiSharedSystemTime, TimeNow(), __ATOMIC_RELAXED);
}

/// The thread that ticks, from the first StartClock to the last StopClock.
class Clock {
public:
    void Start() {
        const std::lock_guard guard(lock_);
        Publish();
        if (users_++ == 0) thread_ = std::thread([this] { Run(); });
    }

    void Stop() {
        std::thread ended;
        {
            const std::lock_guard guard(lock_);
            if (users_ == 0 || --users_ != 0) return;
            ended = std::move(thread_);
        }
        changed_.notify_all();
        ended.join();
    }

private:
    void Run() {
        std::unique_lock guard(lock_);
        while (users_ != 0) {
            Publish();
            changed_.wait_for(guard, kTick);
        }
    }

    std::mutex lock_;
    std::condition_variable changed_;
    unsigned users_ = 0;  // behind lock_, as thread_
    std::thread thread_;
};

Clock& TheClock() {
    static Clock clock;
    return clock;
}

}  // namespace

void StartClock() {
    TheClock().Start();
}

void StopClock() {
    TheClock().Stop();
}

void SetSystemTime(std::int64_t time) {
    stoppedAt = time;
    Publish();
}

std::int64_t TimeNow() {
    if (const std::int64_t time = stoppedAt.load(); time != 0) return time;
    timespec now{};
    clock_gettime(CLOCK_REALTIME, &now);
    return kUnixEpoch + now.tv_sec * kUnitsPerSecond + now.tv_nsec / kNanosecondsPerUnit;
}

std::int64_t MonotonicDeadline(const LARGE_INTEGER& timeout) {
    const std::int64_t units =
        timeout.QuadPart < 0 ? -timeout.QuadPart : timeout.QuadPart - TimeNow();
    if (units <= 0) return 0;
    const std::int64_t now = MonotonicNow();
    const bool forEver = units > (kNoDeadline - now) / kNanosecondsPerUnit;
    return forEver ? kNoDeadline : now + units * kNanosecondsPerUnit;
}

}  // namespace platform

extern "C" {

volatile LONGLONG KiSharedSystemTime = platform::TimeNow();

NTSTATUS NTAPI KeDelayExecutionThread(KPROCESSOR_MODE, BOOLEAN, PLARGE_INTEGER interval) {
    platform::RequireIrql("KeDelayExecutionThread", APC_LEVEL);
    const std::int64_t deadline = platform::MonotonicDeadline(*interval);
    if (deadline == 0) platform::YieldProcessor();
    const std::uint32_t nobodyWakes = 0;
    while (platform::MonotonicNow() < deadline) {
        platform::FutexWait(&nobodyWakes, 0, deadline);
    }
    return STATUS_SUCCESS;
}

}  // extern "C"
