#include "zpregmon/session/session_summary.h"

#include "client/vocabulary.h"

namespace zpregmon {

void DescribeEvents(const DeliveredEvents& delivered, Lines& lines) {
    AddCount(lines, "events", delivered.events);
    for (std::uint32_t type = 1; type <= zpregflt::kLastRecordType; ++type) {
        if (delivered.eventsByType[type] != 0) {
            const auto name = RecordName(static_cast<zpregflt::RecordType>(type));
            AddCount(lines, fmt::format("  {}", name), delivered.eventsByType[type]);
        }
    }
}

void DescribeLosses(const DeliveredEvents& delivered, const SessionStatistics& session,
                    Lines& lines) {
    if (delivered.damagedBuffers != 0) {
        AddCount(lines, "damaged buffers", delivered.damagedBuffers);
        lines = fmt::format_to(lines, "  the first at offset {}: {}\n",
                               delivered.firstDamage->offset, delivered.firstDamage->what);
    }
    if (session.buffersLost != 0) {
        lines =
            fmt::format_to(lines, "{} buffers were refused, the last with status {:08x}\n",
                           session.buffersLost, static_cast<std::uint32_t>(session.lastFailure));
    }
}

}  // namespace zpregmon
