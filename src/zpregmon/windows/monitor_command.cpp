#include "zpregmon/event_output.h"
#include "zpregmon/session/monitor.h"
#include "zpregmon/session/seen_processes.h"
#include "zpregmon/session_options.h"
#include "zpregmon/windows/commands.h"
#include "zpregmon/windows/process_image.h"
#include "zpregmon/windows/stop_request.h"
#include "zpregmon/windows/windows_device.h"

#include <fmt/format.h>

#include <algorithm>
#include <chrono>

namespace zpregmon {

namespace {

using std::chrono::milliseconds;
using std::chrono::seconds;
using Clock = std::chrono::steady_clock;

struct MonitorArguments {
    EventOutputOptions output;
    MonitorOptions options;
    std::uint32_t interval = 500;           ///< milliseconds
    std::optional<std::uint32_t> duration;  ///< seconds
};

void AddMonitorOptions(CLI::App& command, MonitorArguments& arguments) {
    constexpr std::size_t kMostBuffers = 1024;
    AddEventOutputOptions(command, arguments.output);
    AddRecordingOptions(command, arguments.options.settings);
    AddExemptOption(command, arguments.options.settings.exemptImages);
    command.add_option("--dump-file", arguments.options.settings.dumpFile,
                       "Where the driver writes what is in its buffers when the system shuts down, "
                       "or when they are taken from it");
    AddBuffersOption(command, arguments.options.session, kMostBuffers);
    command
        .add_option("--interval", arguments.interval,
                    "Milliseconds after which events are fetched at the latest")
        ->check(CLI::Range(1, 60000))
        ->capture_default_str();
    command
        .add_option("--duration", arguments.duration,
                    "Seconds after which to end; default: with Ctrl+C")
        ->check(CLI::Range(1, 1000000));
}

/// Waits for one interval after the other. False once the stop is requested or the time is up.
class Pauses {
public:
    Pauses(const MonitorArguments& arguments, const StopRequest& stop)
        : interval_(arguments.interval),
          end_(arguments.duration ? Clock::now() + seconds(*arguments.duration)
                                  : Clock::time_point::max()),
          stop_(stop) {}

    bool operator()() const {
        const auto left = std::chrono::ceil<milliseconds>(end_ - Clock::now());
        return !stop_.WaitFor(std::clamp(left, milliseconds(0), interval_)) && Clock::now() < end_;
    }

private:
    milliseconds interval_;
    Clock::time_point end_;
    const StopRequest& stop_;
};

int Monitor(const MonitorArguments& arguments) {
    WindowsDevice device;
    SeenProcesses processes(LookUpImage);
    EventOutput output(arguments.output, &processes);
    StopRequest stop;
    MonitorCalls calls;
    calls.receive = [&](const Event& event) {
        processes.See(event);
        output.Write(event);
    };
    calls.bufferEnds = [&] {
        if (output.Flush() != OutputState::kOpen) {
            stop.Make();
        }
    };
    calls.pause = Pauses(arguments, stop);
    const MonitorResult result = RunMonitor(device, arguments.options, calls);
    const OutputState state = output.Finish();
    if (state == OutputState::kReaderGone) {
        return kWell;  // who closes the pipe has seen enough
    }
    fmt::print(stderr, "{}", DescribeMonitor(result));
    return state == OutputState::kOpen && !result.LostEvents() ? kWell : kFault;
}

}  // namespace

void AddMonitorCommand(CLI::App& app, ChosenCommand& chosen) {
    CLI::App* const command =
        app.add_subcommand("monitor", "Print what the driver records, until Ctrl+C");
    const auto arguments = std::make_shared<MonitorArguments>();
    AddMonitorOptions(*command, *arguments);
    command->callback(
        [arguments, &chosen] { chosen = [arguments] { return Monitor(*arguments); }; });
}

}  // namespace zpregmon
