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

/// Columns for people. `images` may be null.
std::unique_ptr<EventFormat> MakeTableFormat(const ProcessImages* images);
/// One JSON object a line. `images` may be null.
std::unique_ptr<EventFormat> MakeJsonLinesFormat(const ProcessImages* images);

/// The formats by name: what --format takes.
using FormatMaker = std::unique_ptr<EventFormat> (*)(const ProcessImages* images);
struct NamedFormat {
    std::string_view name;
    FormatMaker make;
};
const std::vector<NamedFormat>& Formats();

}  // namespace zpregmon
