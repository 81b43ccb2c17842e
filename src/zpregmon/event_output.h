// Events that a command prints: in which format, where to, and which of them.
#pragma once

#include "client/event_filter.h"
#include "client/event_writer.h"
#include "zpregmon/files.h"

#include <CLI/CLI.hpp>

#include <string>

namespace zpregmon {

/// --include and --exclude.
void AddFilterOptions(CLI::App& command, EventFilter& filter);

struct EventOutputOptions {
    std::string format = "table";
    std::string path = "-";
    EventFilter filter;
};
/// --format, --output and the filters. `options` outlives the parsing.
void AddEventOutputOptions(CLI::App& command, EventOutputOptions& options);

/// Prints the events that pass the filter.
class EventOutput {
public:
    /// Both outlive the output; `images` may be null. Throws UsageError.
    EventOutput(const EventOutputOptions& options, const ProcessImages* images);

    void Write(const Event& event) {
        if (everything_ || options_.filter.Passes(event, images_)) {
            writer_.Write(event);
        }
    }
    /// False once nobody reads or nothing can be written.
    bool IsOpen() const { return writer_.State() == OutputState::kOpen; }
    bool IsTerminal() const;
    /// Writes what is pending.
    OutputState Flush() { return writer_.Flush(); }
    /// The same, at the end; says on standard error when writing failed.
    OutputState Finish();

private:
    const EventOutputOptions& options_;
    const ProcessImages* images_;
    bool everything_;
    File file_;
    EventWriter writer_;
};

}  // namespace zpregmon
