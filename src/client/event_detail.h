// What an event says beside process, time and key, as people read it.
#pragma once

#include "client/data_text.h"
#include "client/event.h"

namespace zpregmon {

/// Writes details into sinks, one event after the other. Text is safe for terminals.
class EventDetail {
public:
    /// With `style` kLabelled, value names are left out where they are a part of the event's path.
    explicit EventDetail(DataStyle style) : style_(style), data_(style) {}

    /// Nothing for the kinds that have no fields of their own.
    void Put(TextSink& out, const Event& event);

private:
    struct Visitor;

    DataStyle style_;
    DataText data_;
};

/// The name of the value that the event is about: of value-set, value-deleted and value-queried.
std::optional<WireText> ValueOf(const Event& event);

}  // namespace zpregmon
