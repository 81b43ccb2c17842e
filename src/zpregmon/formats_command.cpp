#include "client/format.h"
#include "zpregmon/command.h"

#include <fmt/format.h>

#include <cstdio>

namespace zpregmon {

void AddFormatsCommand(CLI::App& app, ChosenCommand& chosen) {
    app.add_subcommand("formats", "List the output formats")->callback([&chosen] {
        chosen = [] {
            for (const NamedFormat& format : Formats()) {
                fmt::print("{:<8} {}\n", format.name, format.description);
            }
            return static_cast<int>(kWell);
        };
    });
}

}  // namespace zpregmon
