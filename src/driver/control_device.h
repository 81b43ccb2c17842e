// The control device through which the client reaches the driver.
#pragma once

#include <wdf.h>

namespace zpregflt {

/// The second half of start-up: creates the device and its queues, builds the pools, registers the
/// registry callback and, last, lets clients in. Consumes or frees `init`. On failure the status is
/// that of the failing step; what was done is undone by tear-down. PASSIVE_LEVEL.
NTSTATUS InitializeControlDevice(WDFDRIVER driver, PWDFDEVICE_INIT init);

}  // namespace zpregflt
