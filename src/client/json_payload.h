// What the kinds of events have beside the header, as JSON keys.
#pragma once

#include "client/event.h"

namespace zpregmon {

class TextSink;

/// The keys of the event's kind with their values, each with a comma in front, all that was
/// recorded. Nothing for the kinds that have no fields of their own.
void PutPayloadKeys(TextSink& out, const Event& event);

/// The name of a value type as a JSON string; its number in hex when it has none.
void PutJsonValueType(TextSink& out, std::uint32_t type);

}  // namespace zpregmon
