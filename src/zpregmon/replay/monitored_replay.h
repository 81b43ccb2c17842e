// A replay from end to end: the machine with the driver, the workload on it, and a client session
// that walks what comes back.
#pragma once

#include "zpregmon/replay/answer_ledger.h"
#include "zpregmon/replay/driver_counters.h"
#include "zpregmon/replay/replayer.h"
#include "zpregmon/replay/workload.h"
#include "zpregmon/session/delivered_events.h"
#include "zpregmon/session/session_settings.h"

#include <chrono>
#include <cstdint>
#include <string>

namespace zpregmon {

/// With a dump file the machine is shut down at the end, so that the file gets the buffers in use
/// at that time.
struct MonitoredReplayOptions : SessionSettings {
    bool parallel = false;
    /// Compare results with the recorded ones, and records of queries with what was answered; not
    /// together with `parallel`.
    bool check = false;
    /// Have the driver write its statistics at the end.
    bool statistics = false;
    std::uint32_t overrideMask = 0;  ///< as MachineSettings
    SessionOptions session;
};

struct MonitoredReplayResult : DeliveredEvents {
    ReplayResult replay;
    DriverCounters driver;
    SessionStatistics session;
    LedgerResult answers;    ///< of a checked replay whose settings have queries recorded
    std::string statistics;  ///< if they were asked for
    std::chrono::duration<double> elapsed{};  ///< of the replay alone

    /// A result is not the recorded one, or a record does not hold what was answered.
    bool Disagrees() const { return replay.check.disagreements != 0 || answers.disagreements != 0; }
    /// Something was recorded and did not arrive, or arrived damaged.
    bool LostEvents() const { return driver.reservationsFailed != 0 || damagedBuffers != 0; }
};

/// The replay waits while the client holds most of the buffers, so a slow receiver slows the replay
/// and loses nothing. Throws WorkloadError, MachineError or ControlError.
MonitoredReplayResult RunMonitoredReplay(const Workload& workload,
                                         const MonitoredReplayOptions& options,
                                         const EventReceiver& receive, ReplayControl& control);

}  // namespace zpregmon
