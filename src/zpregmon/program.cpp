#include "zpregmon/program.h"

#include "zpregmon/command.h"
#include "zpregmon/terminal.h"

#include <fmt/format.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <sstream>

namespace zpregmon {

namespace {

constexpr const char* kVersion = "zpregmon 0.1.0";

std::string ListCommands(CLI::App& app) {
    std::string list;
    for (const CLI::App* command : app.get_subcommands({})) {
        list += (list.empty() ? "; expected one of " : ", ") + command->get_name();
    }
    return list;
}

int Run(std::vector<std::string> arguments) {
    CLI::App app("Shows what programs do with the registry.", "zpregmon");
    app.set_version_flag("--version", kVersion);
    app.require_subcommand(0, 1);  // what follows one is its own, whatever it is called
    ChosenCommand chosen;
    AddSystemCommands(app, chosen);
    AddDecodeCommand(app, chosen);
    AddSummaryCommand(app, chosen);
    AddFormatsCommand(app, chosen);
    app.footer(
        "Exit status: 0, all is well; 1, results disagree, events were lost or damaged, output "
        "cannot\n"
        "be written, or the driver or the system refuses; 2, the command line or the input cannot "
        "be\n"
        "used.");
    std::reverse(arguments.begin(), arguments.end());  // as the parser takes them
    try {
        app.parse(std::move(arguments));
    } catch (const CLI::ParseError& error) {
        if (error.get_exit_code() == 0) {
            std::ostringstream text;  // of --help or --version
            const int status = app.exit(error, text);
            fmt::print("{}", text.str());
            return status;
        }
        fmt::print(stderr, "zpregmon: {}{}\n", error.what(),
                   app.get_subcommands().empty() ? ListCommands(app) : "");
        return kUnusable;
    }
    if (!chosen) {
        fmt::print("{}", app.help());
        return kUnusable;
    }
    return chosen();
}

/// What the command left in the buffer of standard output, help and lists among it.
int FlushOutput(int status) {
    errno = 0;
    if (std::fflush(stdout) == 0 || errno == EPIPE || status != kWell) {
        return status;
    }
    fmt::print(stderr, "zpregmon: standard output: cannot write: {}\n", std::strerror(errno));
    return kFault;
}

}  // namespace

int RunProgram(std::vector<std::string> arguments) {
    PrepareStandardStreams();
    try {
        return FlushOutput(Run(std::move(arguments)));
    } catch (const UsageError& error) {
        fmt::print(stderr, "zpregmon: {}\n", error.what());
        return kUnusable;
    } catch (const std::exception& error) {
        fmt::print(stderr, "zpregmon: {}\n", error.what());
        return kFault;
    }
}

}  // namespace zpregmon
