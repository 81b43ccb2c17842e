// What every command of the program has.
#pragma once

#include <CLI/CLI.hpp>

#include <functional>
#include <stdexcept>

namespace zpregmon {

/// The program's exit status.
enum ExitStatus {
    kWell = 0,
    /// Something disagrees, was lost or is damaged, output cannot be written, or the driver or the
    /// system refuses.
    kFault = 1,
    kUnusable = 2,  ///< the command line or the input cannot be used
};

/// The command line names something that cannot be used.
class UsageError final : public std::runtime_error {
public:
    using std::runtime_error::runtime_error;
};

/// What the command line asks for; returns the exit status.
using ChosenCommand = std::function<int()>;

/// Each adds its command to the command line; when it is the one that is given, `chosen` becomes
/// what carries it out.
void AddDecodeCommand(CLI::App& app, ChosenCommand& chosen);
void AddSummaryCommand(CLI::App& app, ChosenCommand& chosen);
void AddFormatsCommand(CLI::App& app, ChosenCommand& chosen);
/// The commands that only the system has that the program is built for.
void AddSystemCommands(CLI::App& app, ChosenCommand& chosen);

}  // namespace zpregmon
