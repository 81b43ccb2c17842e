#include "platform/kernel/futex.h"

#include <linux/futex.h>
#include <sched.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <cerrno>
#include <ctime>

namespace platform {

namespace {
constexpr std::int64_t kNanosecondsPerSecond = 1'000'000'000;
}

std::int64_t NTAPI MonotonicNow() {
    timespec now{};
    clock_gettime(CLOCK_MONOTONIC, &now);
    return now.tv_sec * kNanosecondsPerSecond + now.tv_nsec;
}

bool NTAPI FutexWait(const void* word, std::uint32_t expected, std::int64_t deadline,
                     std::uint32_t channels) {
    const timespec until{deadline / kNanosecondsPerSecond, deadline % kNanosecondsPerSecond};
    const long result = syscall(SYS_futex, word, FUTEX_WAIT_BITSET | FUTEX_PRIVATE_FLAG, expected,
                                deadline == kNoDeadline ? nullptr : &until, nullptr, channels);
    return result == 0 || errno != ETIMEDOUT;
}

void NTAPI YieldProcessor() {
    sched_yield();
}

void NTAPI FutexWake(const void* word, int waiters, std::uint32_t channels) {
    syscall(SYS_futex, word, FUTEX_WAKE_BITSET | FUTEX_PRIVATE_FLAG, waiters, nullptr, nullptr,
            channels);
}

}  // namespace platform
