// Reading what the registry's queries and enumerations put into the caller's buffer.
#pragma once

#include "zpregmon/replay/workload.h"

#include <ntifs.h>

#include <cstddef>

namespace zpregmon {

/// Bytes in front of the variable part of each class; an unknown class has some too.
std::size_t FixedPart(KEY_INFORMATION_CLASS informationClass);
std::size_t FixedPart(KEY_VALUE_INFORMATION_CLASS informationClass);

/// The answer in `buffer`, whose fixed part is there; `complete`: the rest is too. Text points into
/// the buffer.
Answer ReadKeyAnswer(KEY_INFORMATION_CLASS informationClass, const std::byte* buffer,
                     bool complete);
Answer ReadValueAnswer(KEY_VALUE_INFORMATION_CLASS informationClass, const std::byte* buffer,
                       bool complete);

}  // namespace zpregmon
