// Narrowing of the traces about registry operations to one process and to chosen operations.
#pragma once

#include <ntifs.h>

#include "records/record_format.h"

namespace zpregflt {

/// Whether traces about this process and these operations (0: not tied to one) pass the settings.
/// PASSIVE_LEVEL. Call it only for traces that are enabled.
bool TraceFilterMatch(HANDLE processId, OperationMask mask);

}  // namespace zpregflt
