// The driver's own counters, read from the driver that is linked into this program.
#pragma once

#include <cstdint>

namespace zpregmon {

struct DriverCounters {
    std::uint64_t notifications = 0;       ///< registry notifications received
    std::uint64_t recordsWritten = 0;      ///< of these, how many led to a record
    std::uint64_t reservations = 0;        ///< pieces of event buffers handed out
    std::uint64_t reservationsFailed = 0;  ///< for lack of space: each is a lost record
};

/// While the driver is loaded. Exact while no registry operation is on its way.
DriverCounters ReadDriverCounters();

/// What was counted since `before`.
DriverCounters operator-(const DriverCounters& now, const DriverCounters& before);

}  // namespace zpregmon
