// Recorders of operations between keys and files: loading and unloading of a hive, saving,
// restoring and replacing of a key.
//
// Loads and replacements are recorded with the names that the caller gave; saves and restores with
// the name of the file behind the caller's handle, which the recorder asks the object manager for.
#pragma once

#include "driver/driver_state.h"

namespace zpregflt {

// Operation table handlers.
bool NTAPI HiveLoaded(PVOID notification, DriverState* state);
bool NTAPI HiveUnloaded(PVOID notification, DriverState* state);
bool NTAPI KeyRestored(PVOID notification, DriverState* state);
bool NTAPI KeySaved(PVOID notification, DriverState* state);
bool NTAPI KeyReplaced(PVOID notification, DriverState* state);

}  // namespace zpregflt
