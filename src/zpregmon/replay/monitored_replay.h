// A replay from end to end: the machine with the driver, the workload on it, and a client session
// that walks what comes back.
#pragma once

#include "client/control_session.h"
#include "client/event.h"
#include "zpregmon/replay/answer_ledger.h"
#include "zpregmon/replay/driver_counters.h"
#include "zpregmon/replay/replayer.h"
#include "zpregmon/replay/workload.h"

#include <array>
#include <chrono>
#include <cstdint>
#include <functional>
#include <optional>
#include <string>
#include <vector>

namespace zpregmon {

struct MonitoredReplayOptions {
    bool parallel = false;
    /// Compare results with the recorded ones, and records of queries with what was answered; not
    /// together with `parallel`.
    bool check = false;
    /// Have the driver write its statistics at the end.
    bool statistics = false;
    /// Settings of the driver; what is absent stays as the driver has it by itself.
    std::optional<zpregflt::OperationMask> operations;
    std::optional<std::uint32_t> captureMaxSize;
    bool reportOriginal = false;
    std::uint32_t overrideMask = 0;
    std::vector<std::u16string> exemptImages;
    /// The machine is shut down at the end, so that the file gets the buffers in use at that time.
    std::string dumpFile;
    SessionOptions session;
};

struct MonitoredReplayResult {
    ReplayResult replay;
    DriverCounters driver;
    SessionStatistics session;
    std::uint64_t events = 0;
    std::array<std::uint64_t, zpregflt::kLastRecordType + 1> eventsByType{};
    LedgerResult answers;    ///< of a checked replay whose settings have queries recorded
    std::string statistics;  ///< if they were asked for
    std::uint64_t damagedBuffers = 0;
    std::optional<DecodeError> firstDamage;
    std::chrono::duration<double> elapsed{};  ///< of the replay alone

    /// A result is not the recorded one, or a record does not hold what was answered.
    bool Disagrees() const { return replay.check.disagreements != 0 || answers.disagreements != 0; }
    /// Something was recorded and did not arrive, or arrived damaged.
    bool LostEvents() const { return driver.reservationsFailed != 0 || damagedBuffers != 0; }
};

/// Gets every event, on the session's thread, in the order in which they lie in the buffers; text
/// is valid during the call. The replay waits while the client holds most of the buffers, so a slow
/// receiver slows the replay and loses nothing.
using EventReceiver = std::function<void(const Event&)>;

/// Throws WorkloadError, MachineError or ControlError.
MonitoredReplayResult RunMonitoredReplay(const Workload& workload,
                                         const MonitoredReplayOptions& options,
                                         const EventReceiver& receive, ReplayControl& control);

}  // namespace zpregmon
