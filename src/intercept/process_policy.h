// Which processes are monitored.
#pragma once

#include <ntifs.h>

#include "intercept/references.h"
#include "records/record_format.h"

namespace zpregflt {

/// A monitored process, with the references that a key object context takes over.
struct MonitoredProcess {
    ProcessRecordRef record;
    ProcessContextRef context;
};

/// Looks the current process up and makes its context if it has none. False: it is trusted, exempt
/// or cannot be followed. `traceBit` narrows the traces. PASSIVE_LEVEL.
bool AcquireMonitoredProcess(const DriverState& state, OperationMask traceBit,
                             MonitoredProcess& process);

}  // namespace zpregflt
