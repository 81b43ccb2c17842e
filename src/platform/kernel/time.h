// The system time, and the clock that keeps the shared word of it.
//
// Times are 100-nanosecond intervals since 1 January 1601 (UTC).
#pragma once

#include <wdm.h>

#include <cstdint>

namespace platform {

/// Starts and stops the thread that refreshes KiSharedSystemTime about every millisecond. Calls
/// nest; the word keeps its last value while no clock runs.
void StartClock();
void StopClock();

/// The time stands still at `time` until it is moved again; 0 lets it run with the host's clock.
void SetSystemTime(std::int64_t time);

/// The time now, as exact as the host knows it.
std::int64_t TimeNow();

/// When a wait that began now with this timeout ends, on the clock of FutexWait: a negative timeout
/// is relative, a positive one a system time.
std::int64_t MonotonicDeadline(const LARGE_INTEGER& timeout);

}  // namespace platform
