// Recorders of operations that read: enumeration of subkeys and values, queries of a key, a value,
// several values, a key's security and its name.
//
// A record holds the request's parameters and a copy of what the caller was given. All of that lies
// in the caller's memory, which other threads of the caller may change or take away meanwhile: what
// cannot be read any more is missing from the record, and nothing is written beyond it.
#pragma once

#include "driver/driver_state.h"

namespace zpregflt {

// Operation table handlers.
bool NTAPI SubkeyEnumerated(PVOID notification, DriverState* state);
bool NTAPI ValueEnumerated(PVOID notification, DriverState* state);
bool NTAPI KeyQueried(PVOID notification, DriverState* state);
bool NTAPI ValueQueried(PVOID notification, DriverState* state);
bool NTAPI ValuesQueried(PVOID notification, DriverState* state);
bool NTAPI KeySecurityQueried(PVOID notification, DriverState* state);
bool NTAPI KeyNameQueried(PVOID notification, DriverState* state);

}  // namespace zpregflt
