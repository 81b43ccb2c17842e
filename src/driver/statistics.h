// The driver's counters, written to the trace.
#pragma once

namespace zpregflt {

/// Writes the operation table's counters and then the pool's. For whenever a trace controller has
/// turned the provider on; while it is off nothing is written. Reads each counter once, without a
/// lock. PASSIVE_LEVEL.
void DumpStatistics();

/// Writes the pool's reservations by phase.
void DumpPoolStatistics();

}  // namespace zpregflt
