#include "zpregmon/replay/driver_counters.h"

#include "channel/memory.h"
#include "intercept/operation_table.h"

namespace zpregmon {

namespace {

std::uint64_t Load(volatile LONG64& counter) {
    return static_cast<std::uint64_t>(__atomic_load_n(&counter, __ATOMIC_RELAXED));
}

}  // namespace

DriverCounters ReadDriverCounters() {
    DriverCounters counters;
    for (zpregflt::OperationEntry& row : zpregflt::OperationTable) {
        counters.notifications += Load(row.Hit);
        counters.recordsWritten += Load(row.Log);
    }
    for (ULONG phase = 0; phase < zpregflt::kPoolPhaseCount; ++phase) {
        counters.reservations += Load(zpregflt::Pool.reserveOk[phase]);
        counters.reservationsFailed += Load(zpregflt::Pool.reserveFailed[phase]);
    }
    return counters;
}

DriverCounters operator-(const DriverCounters& now, const DriverCounters& before) {
    return {now.notifications - before.notifications, now.recordsWritten - before.recordsWritten,
            now.reservations - before.reservations,
            now.reservationsFailed - before.reservationsFailed};
}

}  // namespace zpregmon
