#include "zpregmon/replay/driver_statistics.h"

#include "intercept/tracing.h"
#include "platform/kernel/event_trace.h"

#include <fmt/format.h>

#include <algorithm>
#include <iterator>
#include <vector>

namespace zpregmon {

namespace {

/// A trace's arguments behind its message: labels and 64-bit counters.
struct Line {
    std::vector<std::string> cells;
    bool startsWithNumber = false;
};

Line ReadLine(const platform::TraceEvent& event) {
    Line line;
    // Conversions of the message, in order: %s, or %llu.
    const std::string message = event.NarrowText(0);
    std::size_t argument = 1;
    for (std::size_t at = message.find('%'); at != std::string::npos;
         at = message.find('%', at + 1)) {
        const bool isNumber = message[at + 1] != 's';
        line.startsWithNumber |= isNumber && line.cells.empty();
        line.cells.push_back(isNumber ? fmt::format("{}", event.Number(argument))
                                      : event.NarrowText(argument));
        ++argument;
    }
    return line;
}

std::string SetAsTables(const std::vector<Line>& lines) {
    std::string text;
    for (const Line& line : lines) {
        std::vector<std::string> cells = line.cells;
        if (line.startsWithNumber) {
            // Counters of the pool, whose label comes last.
            std::rotate(cells.begin(), std::prev(cells.end()), cells.end());
        } else if (cells.size() == 3) {
            cells.insert(cells.begin(), "Reservations");  // the head of those columns
        }
        if (cells.empty()) {
            continue;  // starts and ends
        }
        fmt::format_to(std::back_inserter(text), "{:<36}", cells[0]);
        for (std::size_t i = 1; i < cells.size(); ++i) {
            fmt::format_to(std::back_inserter(text), "{:>12}", cells[i]);
        }
        text += '\n';
    }
    return text;
}

}  // namespace

std::string TraceDriverStatistics() {
    std::vector<Line> lines;
    platform::TraceController controller(
        zpregflt::kTraceProviderId,
        [&](const platform::TraceEvent& event) { lines.push_back(ReadLine(event)); });
    controller.Enable(zpregflt::TRACE_LEVEL_VERBOSE,
                      zpregflt::TRACE_DRIVER | zpregflt::TRACE_BUFFER);
    controller.Disable();
    return SetAsTables(lines);
}

}  // namespace zpregmon
