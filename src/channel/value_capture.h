// What is captured of a value: how much of its data, and what it holds in the registry, read from
// inside a notification.
#pragma once

#include <ntifs.h>

#include "intercept/references.h"

namespace zpregflt {

inline constexpr ULONG kPreviousValueTag = MakeTag("ZkPi");
using PreviousValue = PoolBlock<KEY_VALUE_PARTIAL_INFORMATION, kPreviousValueTag>;

/// How many of `size` bytes of a value's data a record or a cache entry takes.
ULONG CapturedSize(const DriverState& state, ULONG size);

/// The type and data, as the registry holds them, of the value that the caller named; null when it
/// does not exist or cannot be read, or its name cannot. Opens the key once more by its name, which
/// is a registry operation of its own and comes back to the registry callback. PASSIVE_LEVEL.
PreviousValue QueryCurrentValue(PVOID keyObject, PCUNICODE_STRING valueName);

}  // namespace zpregflt
