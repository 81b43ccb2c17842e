#include "client/event_summary.h"
#include "zpregmon/command.h"
#include "zpregmon/dump_files.h"
#include "zpregmon/event_output.h"
#include "zpregmon/terminal.h"

#include <fmt/format.h>

#include <cerrno>
#include <cstring>

namespace zpregmon {

namespace {

struct SummaryArguments {
    std::vector<std::string> dumps;
    std::string output = "-";
    SummarySettings settings;
    EventFilter filter;
};

int WriteText(const std::string& text, const std::string& path, std::FILE* file) {
    errno = 0;
    if (std::fwrite(text.data(), 1, text.size(), file) == text.size() && std::fflush(file) == 0) {
        return kWell;
    }
    if (errno == EPIPE) {
        return kWell;
    }
    fmt::print(stderr, "zpregmon: {}: cannot write: {}\n", NameOfFile(path, "standard output"),
               std::strerror(errno));
    return kFault;
}

int Summarize(SummaryArguments& arguments) {
    DumpFiles dumps(arguments.dumps);
    for (const std::string& dump : arguments.dumps) {
        CheckDifferent(dump, arguments.output);
    }
    const File output = OpenToWrite(arguments.output);
    arguments.settings.columns = TerminalColumnsOf(output.get());
    EventSummary summary(arguments.settings);
    dumps.Read([&](const Event& event) {
        if (arguments.filter.Passes(event, nullptr)) {
            summary.Add(event);
        }
        return true;
    });
    const int written = WriteText(summary.Describe(), arguments.output, output.get());
    const bool isSound = dumps.ReportDamage();
    return written == kWell && isSound ? kWell : kFault;
}

}  // namespace

void AddSummaryCommand(CLI::App& app, ChosenCommand& chosen) {
    CLI::App* const command = app.add_subcommand(
        "summary", "Count the events of dump files: by kind, process, key, changed value and time");
    const auto arguments = std::make_shared<SummaryArguments>();
    SummarySettings& settings = arguments->settings;
    command->add_option("dump", arguments->dumps, "Dump file; - is standard input")->required();
    command
        ->add_option("-o,--output", arguments->output,
                     "Where the summary goes; - is standard "
                     "output")
        ->capture_default_str();
    command->add_option("--top", settings.top, "Lines of each list")
        ->check(CLI::Range(1, 1000000))
        ->capture_default_str();
    command->add_option("--depth", settings.depth, "Parts of a path that make a subtree of keys")
        ->check(CLI::Range(1, 512))
        ->capture_default_str();
    AddFilterOptions(*command, arguments->filter);
    command->callback(
        [arguments, &chosen] { chosen = [arguments] { return Summarize(*arguments); }; });
}

}  // namespace zpregmon
