#include "zpregmon/replay/monitored_replay.h"

#include "zpregmon/replay/driver_statistics.h"
#include "zpregmon/replay/monitored_machine.h"
#include "zpregmon/replay/platform_device.h"

#include <algorithm>

namespace zpregmon {

namespace {

/// The replay waits while the driver has fewer than this part of the buffers: what is left takes
/// whatever the replaying threads record before each of them comes to its next look.
constexpr std::size_t kReservedPart = 4;

ReplayResult Replay(platform::Machine& machine, const Workload& workload,
                    const MonitoredReplayOptions& options, ReplayControl& control) {
    return options.parallel ? ReplayInParallel(machine, workload, control)
                            : ReplayInOrder(machine, workload, options.check, control);
}

/// The operations that each process records. Queries of an exempt process leave nothing to compare.
zpregflt::OperationMask RecordedQueries(const MonitoredReplayOptions& options) {
    return options.exemptImages.empty() ? options.operations.value_or(0) : 0;
}

/// Everything that happens while the control device is open.
void RunSession(MonitoredMachine& machine, const Workload& workload,
                const MonitoredReplayOptions& options, const EventReceiver& receive,
                ReplayControl& control, MonitoredReplayResult& result) {
    PlatformDevice device(machine.Client());
    ControlSession session(device);
    ApplySettings(options, session);
    AnswerLedger ledger(RecordedQueries(options));
    const EventReceiver receiveChecked = [&](const Event& event) {
        ledger.Compare(event);
        receive(event);
    };
    session.Start(options.session, [&](std::span<const std::byte> image) {
        WalkBuffer(image, options.check ? receiveChecked : receive, result);
    });
    const std::size_t reserve = std::max<std::size_t>(1, options.session.buffers / kReservedPart);
    control.pace = [&] { session.WaitUntilLent(reserve); };
    if (options.check) {
        control.answered = [&](const Record& record, const Outcome& outcome) {
            ledger.Enter(record, outcome);
        };
    }
    const auto start = std::chrono::steady_clock::now();
    result.replay = Replay(machine.Machine(), workload, options, control);
    result.elapsed = std::chrono::steady_clock::now() - start;
    control.pace = nullptr;
    control.answered = nullptr;
    ledger.Close();
    if (!options.dumpFile.empty()) {
        machine.Machine().NotifyShutdown();
    }
    result.session = session.Finish();
    result.answers = ledger.Finish();
}

}  // namespace

MonitoredReplayResult RunMonitoredReplay(const Workload& workload,
                                         const MonitoredReplayOptions& options,
                                         const EventReceiver& receive, ReplayControl& control) {
    MachineSettings settings;
    settings.overrideMask = options.overrideMask;
    settings.clientId = workload.UnusedProcessId();
    settings.initialKeys = workload.InitialKeys();
    MonitoredMachine machine(settings);
    const DriverCounters before = ReadDriverCounters();
    MonitoredReplayResult result;
    RunSession(machine, workload, options, receive, control, result);
    result.driver = ReadDriverCounters() - before;
    if (options.statistics) {
        result.statistics = TraceDriverStatistics();
    }
    machine.TakeDown();
    return result;
}

}  // namespace zpregmon
