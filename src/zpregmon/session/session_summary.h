// What a session came to, for people: lines of a name and a count.
#pragma once

#include "client/control_session.h"
#include "zpregmon/session/delivered_events.h"

#include <fmt/format.h>

#include <iterator>
#include <string>
#include <string_view>

namespace zpregmon {

using Lines = std::back_insert_iterator<std::string>;

template <typename Number>
void AddCount(Lines& lines, std::string_view what, Number count) {
    lines = fmt::format_to(lines, "{:<22}{:>12}\n", what, count);
}

/// How many there were, of each kind.
void DescribeEvents(const DeliveredEvents& delivered, Lines& lines);
/// Buffers that were damaged or refused; nothing when there were none.
void DescribeLosses(const DeliveredEvents& delivered, const SessionStatistics& session,
                    Lines& lines);

}  // namespace zpregmon
