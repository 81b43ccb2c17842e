// Undoing start-up: exactly the steps that completed.
#pragma once

#include <wdf.h>

namespace zpregflt {

/// Clean-up callback of the framework driver object: the whole tear-down. Runs at unload and when
/// start-up fails after the driver object was created. PASSIVE_LEVEL.
void NTAPI DriverContextCleanup(WDFOBJECT driver);

/// The undoing of a start-up that failed before there was a driver object: deletes the call-context
/// list and ends the support library's registrations, in reverse order. PASSIVE_LEVEL.
void UndoLibrary();

}  // namespace zpregflt
