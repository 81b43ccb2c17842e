// The notification classes of key creation and opening that current systems no longer raise.
#pragma once

#include "driver/driver_state.h"

namespace zpregflt {

inline constexpr ULONG kLegacyClassBugcheck = 0x200;

/// Stops the system: creation and opening are followed through the Ex classes only, and a system
/// that raised the old ones would have the driver miss every key.
[[noreturn]] bool NTAPI HaltOnLegacyClass(PVOID notification, DriverState* state);

}  // namespace zpregflt
