#include "client/vocabulary.h"
#include "driver/control_codes.h"
#include "platform/kernel/text.h"
#include "zpregmon/command.h"
#include "zpregmon/event_output.h"
#include "zpregmon/replay/monitored_replay.h"
#include "zpregmon/replay/platform_device.h"
#include "zpregmon/replay/progress_bar.h"
#include "zpregmon/replay/summary.h"
#include "zpregmon/replay/workload_images.h"
#include "zpregmon/terminal.h"

#include <fmt/format.h>

#include <charconv>
#include <cstdio>
#include <memory>
#include <optional>

namespace zpregmon {

namespace {

struct ReplayArguments {
    std::string workload;
    EventOutputOptions output;
    std::string operations;
    std::string overrides;
    std::vector<std::string> exempt;
    bool verify = false;
    MonitoredReplayOptions options;
};

std::string CheckOperations(const std::string& text) {
    std::string problem;
    ParseOperations(text, problem);
    return problem;
}

std::optional<std::uint32_t> ParseOverrides(std::string_view text) {
    std::uint32_t mask = 0;
    const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), mask);
    if (error == std::errc() && end == text.data() + text.size()) {
        return mask <= (zpregflt::OVERRIDE_TRUSTED | zpregflt::OVERRIDE_EXEMPTIONS)
                   ? std::optional(mask)
                   : std::nullopt;
    }
    mask = 0;
    for (std::size_t start = 0; start <= text.size();) {
        const std::size_t comma = std::min(text.find(',', start), text.size());
        const std::string_view name = text.substr(start, comma - start);
        if (name == "trusted") {
            mask |= zpregflt::OVERRIDE_TRUSTED;
        } else if (name == "exemptions") {
            mask |= zpregflt::OVERRIDE_EXEMPTIONS;
        } else {
            return std::nullopt;
        }
        start = comma + 1;
    }
    return mask;
}

std::string CheckOverrides(const std::string& text) {
    return ParseOverrides(text) ? ""
                                : fmt::format(
                                      "'{}' is no set of overrides, expected 'trusted', "
                                      "'exemptions', both with a comma, or a number up to 3",
                                      text);
}

std::string CheckNotEmpty(const std::string& text) {
    return text.empty() ? "expected a name that is not empty" : "";
}

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
    command
        .add_option("--operations", arguments.operations,
                    "Operations to record, by name with commas or as a number; default: the "
                    "driver's own")
        ->check(CheckOperations);
    command.add_option("--capture-max", options.captureMaxSize,
                       "Most bytes to capture of one value");
    command.add_flag("--report-original", options.reportOriginal,
                     "Record the data that a changed value had before");
    command
        .add_option("--override", arguments.overrides,
                    "Monitor 'trusted' processes, 'exemptions', or both")
        ->check(CheckOverrides);
    command
        .add_option("--exempt", arguments.exempt, "Image name that is not monitored; repeatable")
        ->check(CheckNotEmpty);
    command.add_option("--dump-file", options.dumpFile,
                       "Shut the machine down at the end: the driver then writes the buffers in "
                       "use to this file");
    command.add_flag("--stats", options.statistics,
                     "Print the counters that the driver writes into its trace at the end");
    command.add_option("--buffers", options.session.buffers, "Buffers lent to the driver")
        ->check(CLI::Range(std::size_t{1}, PlatformDevice::kMostBuffers))
        ->capture_default_str();
    command.add_flag("--verify", arguments.verify,
                     "Check the rules of kernel code all the way, which is slow");
}

void CompleteOptions(ReplayArguments& arguments) {
    std::string problem;
    if (!arguments.operations.empty()) {
        arguments.options.operations = ParseOperations(arguments.operations, problem);
    }
    if (!arguments.overrides.empty()) {
        arguments.options.overrideMask = ParseOverrides(arguments.overrides).value();
    }
    for (const std::string& name : arguments.exempt) {
        arguments.options.exemptImages.push_back(platform::ToUtf16(name));
    }
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

int Replay(ReplayArguments& arguments) {
    CompleteOptions(arguments);
    platform::EnableVerifier(arguments.verify);
    const Workload workload = Workload::Read(arguments.workload);
    const WorkloadImages images(workload);
    if (!arguments.options.dumpFile.empty()) {
        CheckWritable(arguments.options.dumpFile);  // before anything is done
    }
    EventOutput output(arguments.output, &images);
    const MonitoredReplayResult result = RunReplay(arguments, workload, output);
    const OutputState state = output.Finish();
    if (state == OutputState::kReaderGone) {
        return kWell;  // who closes the pipe has seen enough
    }
    fmt::print(stderr, "{}", DescribeReplay(result, arguments.workload, arguments.options.check));
    const bool isWell = state == OutputState::kOpen && !result.Disagrees() && !result.LostEvents();
    return isWell ? kWell : kFault;
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
