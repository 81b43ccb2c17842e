#include "zpregmon/linux/replay_command.h"

#include "client/dump_file.h"
#include "zpregmon/command.h"
#include "zpregmon/event_output.h"
#include "zpregmon/files.h"
#include "zpregmon/linux/interrupt.h"
#include "zpregmon/replay/monitored_replay.h"
#include "zpregmon/replay/platform_device.h"
#include "zpregmon/replay/progress_bar.h"
#include "zpregmon/replay/summary.h"
#include "zpregmon/replay/workload_images.h"
#include "zpregmon/session_options.h"
#include "zpregmon/terminal.h"

#include <fmt/format.h>

#include <cstdio>
#include <memory>
#include <optional>

namespace zpregmon {

namespace {

struct ReplayArguments {
    std::string workload;
    EventOutputOptions output;
    bool verify = false;
    MonitoredReplayOptions options;
};

void AddReplayOptions(CLI::App& command, ReplayArguments& arguments) {
    MonitoredReplayOptions& options = arguments.options;
    command.add_option("workload", arguments.workload, "Recorded workload; - is standard input")
        ->required();
    AddEventOutputOptions(command, arguments.output);
    auto* const check = command.add_flag("--check", options.check,
                                         "Compare every result with the recorded one, and every "
                                         "record of a query with what was answered");
    command
        .add_flag("--parallel", options.parallel,
                  "Give every recorded process a thread of its own; results then depend on how the "
                  "threads meet and cannot be checked")
        ->excludes(check);
    AddRecordingOptions(command, options);
    AddOverrideOption(command, options.overrideMask);
    AddExemptOption(command, options.exemptImages);
    command.add_option("--dump-file", options.dumpFile,
                       "Shut the machine down at the end: the driver then writes the buffers in "
                       "use to this file");
    command.add_flag("--stats", options.statistics,
                     "Print the counters that the driver writes into its trace at the end");
    AddBuffersOption(command, options.session, PlatformDevice::kMostBuffers);
    command.add_flag("--verify", arguments.verify,
                     "Check the rules of kernel code all the way, which is slow");
}

/// The bar and the events must not share a terminal.
bool WantsProgressBar(const EventOutput& output) {
    return IsTerminal(stderr) && !output.IsTerminal();
}

MonitoredReplayResult RunReplay(const ReplayArguments& arguments, const Workload& workload,
                                EventOutput& output) {
    ReplayControl control;
    const auto receive = [&](const Event& event) {
        output.Write(event);
        if (!output.IsOpen()) {
            control.stop.store(true, std::memory_order_relaxed);
        }
    };
    // The first interruption ends the replay and leaves its summary.
    const InterruptScope interrupts(control.stop);
    std::optional<ProgressBar> bar;
    if (WantsProgressBar(output)) {
        bar.emplace(stderr, control.done, workload.Records().size());
    }
    return RunMonitoredReplay(workload, arguments.options, receive, control);
}

void CheckFiles(const ReplayArguments& arguments) {
    const std::string& dump = arguments.options.dumpFile;
    CheckDifferent(arguments.workload, arguments.output.path);
    if (!dump.empty()) {
        CheckWritable(dump);
        CheckDifferent(arguments.workload, dump);
        CheckDifferent(arguments.output.path, dump);
    }
}

/// The driver has nobody to tell that a write failed. A shutdown leaves one block at least.
bool DumpIsWhole(const std::string& path) {
    if (path.empty()) {
        return true;
    }
    const File file = OpenToRead(path);
    DumpFileReader reader(file.get());
    for (Event event; reader.Next(event);) {
    }
    if (reader.BlocksRead() != 0 && !reader.Error()) {
        return true;
    }
    fmt::print(stderr, "zpregmon: {}: the dump could not be written whole\n", path);
    return false;
}

int Replay(const ReplayArguments& arguments) {
    platform::EnableVerifier(arguments.verify);
    CheckFiles(arguments);  // before anything is done
    const Workload workload = Workload::Read(arguments.workload);
    const WorkloadImages images(workload);
    EventOutput output(arguments.output, &images);
    const MonitoredReplayResult result = RunReplay(arguments, workload, output);
    const OutputState state = output.Finish();
    if (state == OutputState::kReaderGone) {
        return kWell;  // who closes the pipe has seen enough
    }
    fmt::print(stderr, "{}", DescribeReplay(result, arguments.workload, arguments.options.check));
    const bool isWell = state == OutputState::kOpen && !result.Disagrees() && !result.LostEvents();
    const bool isDumped = DumpIsWhole(arguments.options.dumpFile);
    return isWell && isDumped ? kWell : kFault;
}

}  // namespace

void AddReplayCommand(CLI::App& app, ChosenCommand& chosen) {
    CLI::App* const command = app.add_subcommand(
        "replay", "Replay a recorded workload on a machine and print what the driver records");
    const auto arguments = std::make_shared<ReplayArguments>();
    AddReplayOptions(*command, *arguments);
    command->callback([arguments, &chosen] {
        chosen = [arguments] {
            try {
                return Replay(*arguments);
            } catch (const WorkloadError& error) {
                throw UsageError(error.what());
            }
        };
    });
}

}  // namespace zpregmon
