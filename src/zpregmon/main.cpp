// The command-line program.
//
// Exit status: 0, all is well; 1, something disagrees, was lost or is damaged; 2, the command line
// or the input cannot be used.
#include "client/event_writer.h"
#include "client/format.h"
#include "client/vocabulary.h"
#include "driver/control_codes.h"
#include "platform/machine.h"
#include "zpregmon/replay/monitored_machine.h"
#include "zpregmon/replay/monitored_replay.h"
#include "zpregmon/replay/platform_device.h"
#include "zpregmon/replay/progress_bar.h"
#include "zpregmon/replay/summary.h"
#include "zpregmon/replay/workload_images.h"

#include <fmt/format.h>
#include <signal.h>
#include <unistd.h>
#include <CLI/CLI.hpp>

#include <cerrno>
#include <charconv>
#include <cstdio>
#include <cstring>
#include <memory>
#include <optional>

namespace zpregmon {

namespace {

constexpr const char* kVersion = "zpregmon 0.1.0";

/// The command line names something that cannot be used.
class UsageError final : public std::runtime_error {
public:
    using std::runtime_error::runtime_error;
};

enum ExitStatus { kWell = 0, kFault = 1, kUnusable = 2 };

struct ReplayArguments {
    std::string workload;
    std::string format = "table";
    std::string output = "-";
    std::string operations;
    std::string overrides;
    std::vector<std::string> exempt;
    bool verify = false;
    MonitoredReplayOptions options;
};

/// What a signal may touch.
ReplayControl* interruptible = nullptr;

void Interrupt(int) {
    interruptible->stop.store(true, std::memory_order_relaxed);
}

/// The first interruption ends the replay and leaves its summary; the second one the program.
class InterruptScope {
public:
    explicit InterruptScope(ReplayControl& control) {
        interruptible = &control;
        struct sigaction action {};
        action.sa_handler = Interrupt;
        action.sa_flags = static_cast<int>(SA_RESETHAND | SA_RESTART);
        sigaction(SIGINT, &action, &before_);
    }
    ~InterruptScope() { sigaction(SIGINT, &before_, nullptr); }
    InterruptScope(const InterruptScope&) = delete;
    InterruptScope& operator=(const InterruptScope&) = delete;

private:
    struct sigaction before_ {};
};

struct CloseFile {
    void operator()(std::FILE* file) const {
        if (file != stdout) {
            std::fclose(file);
        }
    }
};
using OutputFile = std::unique_ptr<std::FILE, CloseFile>;

OutputFile OpenFile(const std::string& path, const char* mode) {
    OutputFile file(path == "-" ? stdout : std::fopen(path.c_str(), mode));
    if (!file) {
        throw UsageError(fmt::format("{}: cannot write: {}", path, std::strerror(errno)));
    }
    return file;
}

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
    std::vector<std::string> formats;
    for (const NamedFormat& format : Formats()) {
        formats.emplace_back(format.name);
    }
    MonitoredReplayOptions& options = arguments.options;
    command.add_option("workload", arguments.workload, "Recorded workload; - is standard input")
        ->required();
    command.add_option("-f,--format", arguments.format, "How events are printed")
        ->check(CLI::IsMember(formats))
        ->capture_default_str();
    command.add_option("-o,--output", arguments.output, "Where events go; - is standard output")
        ->capture_default_str();
    auto* const check =
        command.add_flag("--check", options.check, "Compare every result with the recorded one");
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

FormatMaker FindFormat(const std::string& name) {
    for (const NamedFormat& format : Formats()) {
        if (format.name == name) {
            return format.make;
        }
    }
    return nullptr;
}

/// The bar and the events must not share a terminal.
bool WantsProgressBar(std::FILE* output) {
    return isatty(STDERR_FILENO) != 0 && isatty(fileno(output)) == 0;
}

int Replay(ReplayArguments& arguments) {
    CompleteOptions(arguments);
    platform::EnableVerifier(arguments.verify);
    const Workload workload = Workload::Read(arguments.workload);
    const WorkloadImages images(workload);
    if (!arguments.options.dumpFile.empty()) {
        OpenFile(arguments.options.dumpFile, "ab");  // only to know, before anything is done
    }
    const OutputFile output = OpenFile(arguments.output, "wb");
    EventWriter writer(FindFormat(arguments.format)(&images), output.get());

    ReplayControl control;
    const auto receive = [&](const Event& event) {
        writer.Write(event);
        if (writer.State() != OutputState::kOpen) {
            control.stop.store(true, std::memory_order_relaxed);
        }
    };
    MonitoredReplayResult result;
    {
        const InterruptScope interrupts(control);
        std::optional<ProgressBar> bar;
        if (WantsProgressBar(output.get())) {
            bar.emplace(stderr, control.done, workload.Records().size());
        }
        result = RunMonitoredReplay(workload, arguments.options, receive, control);
    }
    const OutputState state = writer.Flush();
    if (state == OutputState::kReaderGone) {
        return kWell;  // who closes the pipe has seen enough
    }
    fmt::print(stderr, "{}", DescribeReplay(result, arguments.workload, arguments.options.check));
    if (state == OutputState::kFailed) {
        fmt::print(stderr, "zpregmon: {}: cannot write: {}\n", arguments.output, writer.Problem());
        return kFault;
    }
    const bool agrees = result.replay.check.disagreements == 0;
    return agrees && !result.LostEvents() ? kWell : kFault;
}

int Run(int argc, char** argv) {
    CLI::App app("Shows what programs do with the registry.", "zpregmon");
    app.set_version_flag("--version", kVersion);
    ReplayArguments arguments;
    CLI::App* const replay = app.add_subcommand(
        "replay", "Replay a recorded workload on a machine and print what the driver records");
    AddReplayOptions(*replay, arguments);
    app.footer(
        "Exit status: 0, all is well; 1, results disagree or events were lost or damaged;\n"
        "2, the command line or the input cannot be used.");
    try {
        app.parse(argc, argv);
    } catch (const CLI::ParseError& error) {
        if (error.get_exit_code() == 0) {
            return app.exit(error);  // --help, --version
        }
        fmt::print(stderr, "zpregmon: {}\n", error.what());
        return kUnusable;
    }
    if (!replay->parsed()) {
        fmt::print("{}", app.help());
        return kUnusable;
    }
    return Replay(arguments);
}

}  // namespace

}  // namespace zpregmon

int main(int argc, char** argv) {
    signal(SIGPIPE, SIG_IGN);  // a closed pipe is seen where it is written to
    try {
        return zpregmon::Run(argc, argv);
    } catch (const zpregmon::UsageError& error) {
        fmt::print(stderr, "zpregmon: {}\n", error.what());
        return zpregmon::kUnusable;
    } catch (const zpregmon::WorkloadError& error) {
        fmt::print(stderr, "zpregmon: {}\n", error.what());
        return zpregmon::kUnusable;
    } catch (const std::exception& error) {
        fmt::print(stderr, "zpregmon: {}\n", error.what());
        return zpregmon::kFault;
    }
}
