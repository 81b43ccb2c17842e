// The command-line program.
#include "zpregmon/command.h"
#include "zpregmon/terminal.h"

#include <fmt/format.h>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <sstream>

namespace zpregmon {

namespace {

constexpr const char* kVersion = "zpregmon 0.1.0";

int Run(int argc, char** argv) {
    CLI::App app("Shows what programs do with the registry.", "zpregmon");
    app.set_version_flag("--version", kVersion);
    ChosenCommand chosen;
#ifndef _WIN32
    AddReplayCommand(app, chosen);  // on the platform that stands in for the kernel
#endif
    AddDecodeCommand(app, chosen);
    AddSummaryCommand(app, chosen);
    AddFormatsCommand(app, chosen);
    app.footer(
        "Exit status: 0, all is well; 1, results disagree, events were lost or damaged, or output\n"
        "cannot be written; 2, the command line or the input cannot be used.");
    try {
        app.parse(argc, argv);
    } catch (const CLI::ParseError& error) {
        if (error.get_exit_code() == 0) {
            std::ostringstream text;  // of --help or --version
            const int status = app.exit(error, text);
            fmt::print("{}", text.str());
            return status;
        }
        fmt::print(stderr, "zpregmon: {}\n", error.what());
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

}  // namespace zpregmon

int main(int argc, char** argv) {
    zpregmon::PrepareStandardStreams();
    try {
        return zpregmon::FlushOutput(zpregmon::Run(argc, argv));
    } catch (const zpregmon::UsageError& error) {
        fmt::print(stderr, "zpregmon: {}\n", error.what());
        return zpregmon::kUnusable;
    } catch (const std::exception& error) {
        fmt::print(stderr, "zpregmon: {}\n", error.what());
        return zpregmon::kFault;
    }
}
