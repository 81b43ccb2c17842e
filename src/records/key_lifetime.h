// Recorders of operations on a key as a whole: deletion, rename, flush, closing of a handle and
// setting of information. Deletion and rename also keep the key-name tree in step with the
// registry.
//
// A delete or rename of a key that is not in the tree is named by its path from before the
// operation, which the pre-notification captures and hands over in CallContext; the
// post-notification frees it on every road.
#pragma once

#include "driver/driver_state.h"

namespace zpregflt {

// Operation table handlers.
bool NTAPI PreDeleteKey(PVOID notification, DriverState* state);
bool NTAPI KeyDeleted(PVOID notification, DriverState* state);
bool NTAPI PreRenameKey(PVOID notification, DriverState* state);
bool NTAPI KeyRenamed(PVOID notification, DriverState* state);
bool NTAPI KeyFlushed(PVOID notification, DriverState* state);
bool NTAPI KeyHandleClosed(PVOID notification, DriverState* state);
bool NTAPI KeyInformationSet(PVOID notification, DriverState* state);

}  // namespace zpregflt
