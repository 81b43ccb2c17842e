// Recorders of changes of a key's security.
//
// What is recorded is the effect, not the request: the key's security before the operation, against
// what it is after it. The pre-notification fetches the former and hands it over in CallContext,
// the descriptor's address with a flag in its lowest bit; the post-notification gives it back,
// whatever the operation's status. It gets there whenever the pre-notification got there: both have
// the same gates, on the same thread and key object, and what they look at does not change in
// between. A process's operations are set once, and a key entry, once there, stays.
#pragma once

#include "driver/driver_state.h"

namespace zpregflt {

// Operation table handlers.
bool NTAPI PreSetKeySecurity(PVOID notification, DriverState* state);
bool NTAPI KeySecuritySet(PVOID notification, DriverState* state);

}  // namespace zpregflt
