// What a value holds in the registry, read from inside a notification.
#pragma once

#include <ntifs.h>

#include "intercept/references.h"

namespace zpregflt {

inline constexpr ULONG kPreviousValueTag = MakeTag("ZkPi");
using PreviousValue = PoolBlock<KEY_VALUE_PARTIAL_INFORMATION, kPreviousValueTag>;

/// The value's type and data as the registry holds them; null when it does not exist or cannot be
/// read. Opens the key once more by its name, which is a registry operation of its own and comes
/// back to the registry callback. PASSIVE_LEVEL.
PreviousValue QueryCurrentValue(PVOID keyObject, PUNICODE_STRING valueName);

}  // namespace zpregflt
