// Recorders of value changes.
//
// A set is judged before it happens and recorded after it succeeded. What the pre-notification
// finds out travels to the post-notification in the operation's CallContext: the address of a
// SetValueCallContext (or 0) with two flags in its low bits. The post-notification gives everything
// in it back, whatever the operation's status.
#pragma once

#include <ntifs.h>

#include "driver/driver_state.h"

namespace zpregflt {

struct ValueCacheEntry;

/// Block of DriverState::CallContextLookaside.
struct SetValueCallContext {
    ValueCacheEntry* Entry;                   ///< held, or null
    KEY_VALUE_PARTIAL_INFORMATION* Previous;  ///< block with tag kPreviousValueTag, or null
};
static_assert(sizeof(SetValueCallContext) == 16);

/// After a successful set, remember the data in the process's cache.
inline constexpr ULONG_PTR CALL_CONTEXT_CACHE = 0x1;
/// After a successful set, write a record.
inline constexpr ULONG_PTR CALL_CONTEXT_RECORD = 0x2;

// Operation table handlers.
bool NTAPI PreSetValue(PVOID notification, DriverState* state);
bool NTAPI ValueSet(PVOID notification, DriverState* state);
bool NTAPI ValueDeleted(PVOID notification, DriverState* state);

}  // namespace zpregflt
