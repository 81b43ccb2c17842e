// Waiting on a 32-bit word of memory, and waking who waits.
//
// NTAPI, as the kernel routines that wait: see held_locks.h.
#pragma once

#include <ntdef.h>

#include <cstdint>

namespace platform {

/// Nanoseconds of the host's monotonic clock.
std::int64_t NTAPI MonotonicNow();

inline constexpr std::int64_t kNoDeadline = INT64_MAX;
inline constexpr std::uint32_t kAllChannels = 0xFFFFFFFF;

/// Waits while the word is `expected`, until a wake on one of `channels` or the deadline
/// (MonotonicNow's clock). May return early: callers look at the word again. False: deadline
/// passed.
bool NTAPI FutexWait(const void* word, std::uint32_t expected, std::int64_t deadline = kNoDeadline,
                     std::uint32_t channels = kAllChannels);

inline constexpr int kWakeAll = INT32_MAX;

/// The word is only named, never read: it may be gone by now.
void NTAPI FutexWake(const void* word, int waiters, std::uint32_t channels = kAllChannels);

/// Lets another thread have the processor.
void NTAPI YieldProcessor();

/// One step of a short wait that burns processor time.
inline void SpinPause() {
    __builtin_ia32_pause();
}
/// Steps of SpinPause before a waiter parks: a few microseconds, the cost of a park and a wake.
inline constexpr int kSpinsBeforeParking = 100;

}  // namespace platform
