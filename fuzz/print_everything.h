// Looks at every field of an event, as the program's commands do.
#pragma once

#include "client/event_filter.h"
#include "client/event_summary.h"
#include "client/format.h"

#include <memory>
#include <vector>

namespace zpregmon {

/// Every format, the table also for a terminal, a filter on every field and the summary. Uses one
/// set of formats for all inputs, as one run of the program does for all its buffers.
class EverythingPrinter {
public:
    EverythingPrinter() {
        for (const NamedFormat& format : Formats()) {
            formats_.push_back(format.make({}));
        }
        FormatSettings terminal;
        terminal.columns = 90;
        terminal.colour = true;
        formats_.push_back(MakeTableFormat(terminal));
        for (const char* rule :
             {"op=value-set,key-renamed", "key=HKLM\\*a?", "value=*b*", "pid=32", "image=*x"}) {
            filter_.Exclude(rule);
        }
    }

    void Print(const Event& event, EventSummary& summary) {
        for (const auto& format : formats_) {
            text_.clear();
            format->Append(event, text_);
        }
        if (filter_.Passes(event, nullptr)) {
            summary.Add(event);
        }
    }

private:
    std::vector<std::unique_ptr<EventFormat>> formats_;
    EventFilter filter_;
    TextBuffer text_;
};

}  // namespace zpregmon
