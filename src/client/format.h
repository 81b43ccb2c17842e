// Output formats: how events become lines.
#pragma once

#include "client/event.h"

#include <fmt/format.h>

#include <cstdint>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

namespace zpregmon {

using TextBuffer = fmt::memory_buffer;

/// What the client knows of the processes in the events.
class ProcessImages {
public:
    virtual ~ProcessImages() = default;
    /// The process's image path, or null when it is not known. The text stays the callee's and does
    /// not change.
    virtual const std::u16string* Find(std::uint32_t processId) const = 0;
};

/// Turns events into text, one after the other. Not for several threads at once.
class EventFormat {
public:
    virtual ~EventFormat() = default;
    /// What goes before the first event.
    virtual void AppendHeading(TextBuffer& /*out*/) {}
    virtual void Append(const Event& event, TextBuffer& out) = 0;
};

/// What formats are made with.
struct FormatSettings {
    /// Null: nothing is known of processes. Outlives the format.
    const ProcessImages* images = nullptr;
    /// Of the terminal that the text goes to; 0: to none. Only the table heeds this and the next.
    std::size_t columns = 0;
    bool colour = false;
};

/// Columns for people; on a terminal one line an event, cut where the terminal ends.
std::unique_ptr<EventFormat> MakeTableFormat(const FormatSettings& settings);
/// One JSON object a line, with everything that was recorded.
std::unique_ptr<EventFormat> MakeJsonLinesFormat(const FormatSettings& settings);
/// Comma-separated columns for spreadsheets and log viewers.
std::unique_ptr<EventFormat> MakeCsvFormat(const FormatSettings& settings);
/// Registry key and value activities of the Open Cybersecurity Schema Framework, one a line.
std::unique_ptr<EventFormat> MakeOcsfFormat(const FormatSettings& settings);
/// Registry events for rules written for System Monitor logs, one JSON object a line; kinds that
/// those do not have give no line.
std::unique_ptr<EventFormat> MakeSysmonFormat(const FormatSettings& settings);

/// The formats by name: what --format takes.
using FormatMaker = std::unique_ptr<EventFormat> (*)(const FormatSettings& settings);
struct NamedFormat {
    std::string_view name;
    std::string_view description;  ///< one line
    FormatMaker make;
};
const std::vector<NamedFormat>& Formats();
/// The format of this name, or null.
const NamedFormat* FindFormat(std::string_view name);

}  // namespace zpregmon
