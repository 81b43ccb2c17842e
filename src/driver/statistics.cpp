#include "driver/statistics.h"

#include "channel/memory.h"
#include "intercept/operation_table.h"
#include "intercept/tracing.h"

namespace zpregflt {

namespace {

/// One counter for each phase. The order of the phases is that of the header line.
void DumpPhases(const volatile LONG64 (&counters)[kPoolPhaseCount], const char* label) {
    ZPRF_TRACE(TRACE_BUFFER, TRACE_LEVEL_VERBOSE, "%llu %llu %llu %s",
               ReadNoFence64(&counters[static_cast<ULONG>(PoolPhase::kBoot)]),
               ReadNoFence64(&counters[static_cast<ULONG>(PoolPhase::kNormal)]),
               ReadNoFence64(&counters[static_cast<ULONG>(PoolPhase::kShutdown)]), label);
}

}  // namespace

void DumpStatistics() {
    ZPRF_TRACE(TRACE_DRIVER, TRACE_LEVEL_VERBOSE, "operation statistics");
    ZPRF_TRACE(TRACE_DRIVER, TRACE_LEVEL_VERBOSE, "%s: %s %s %s %s", "Callback", "Hit", "Log",
               "Filter", "Fail");
    for (const OperationEntry& row : OperationTable) {
        ZPRF_TRACE(TRACE_DRIVER, TRACE_LEVEL_VERBOSE, "%s: %llu %llu %llu %llu", row.Name,
                   ReadNoFence64(&row.Hit), ReadNoFence64(&row.Log), ReadNoFence64(&row.Filter),
                   ReadNoFence64(&row.Fail));
    }
    ZPRF_TRACE(TRACE_DRIVER, TRACE_LEVEL_VERBOSE, "end of operation statistics");
    DumpPoolStatistics();
}

void DumpPoolStatistics() {
    ZPRF_TRACE(TRACE_BUFFER, TRACE_LEVEL_VERBOSE, "%s %s %s: reservations", "Boot", "Normal",
               "Shutdown");
    DumpPhases(Pool.reserveOk, "made");
    DumpPhases(Pool.reserveFailed, "failed");
    ZPRF_TRACE(TRACE_BUFFER, TRACE_LEVEL_VERBOSE, "end of reservations");
}

}  // namespace zpregflt
