// Undoing start-up: exactly the steps that completed, in reverse order.
#pragma once

#include <wdf.h>

namespace zpregflt {

/// Clean-up callback of the framework driver object: the whole tear-down. Runs at unload and when
/// start-up fails after the driver object was created. PASSIVE_LEVEL.
void NTAPI DriverContextCleanup(WDFOBJECT driver);

/// Ends the support library's registrations that were made and deletes the call-context list.
void ReleaseLibrary();

}  // namespace zpregflt
