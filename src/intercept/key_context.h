// Key object contexts: attached when a monitored process creates or opens a key, released when the
// configuration manager discards them.
#pragma once

#include <ntifs.h>

#include "driver/driver_state.h"
#include "intercept/contexts.h"
#include "records/record_format.h"

namespace zpregflt {

inline constexpr ULONG kKeyContextTag = MakeTag("ZRkc");

/// The lookaside list of key object contexts. Every block must be back before it is deleted, which
/// the unregistration of the callback sees to.
void InitializeKeyContexts();
void UninitializeKeyContexts();

/// Decides whether the current process is monitored and, if so, attaches a context to the key
/// object. Returns it, complete, with `operations` as its KeyOperations and no node; or null.
/// Called in the post-notification, in the thread that created or opened the key.
KeyObjectContext* AttachKeyContext(PVOID object, DriverState* state, OperationMask operations,
                                   OperationMask traceBit);

// Operation table handlers.
/// Attaches a context, enters a new key into the key-name tree and records its creation.
bool NTAPI KeyCreated(PVOID notification, DriverState* state);
/// Attaches a context.
bool NTAPI KeyOpened(PVOID notification, DriverState* state);
/// Gives back everything that a context holds, and its block.
bool NTAPI ReleaseKeyContext(PVOID notification, DriverState* state);

}  // namespace zpregflt
