// Registry keys and values that the system itself makes: service keys, and what a test or a tool
// puts into the registry before drivers read it. PASSIVE_LEVEL; fault injection leaves them alone.
#pragma once

#include <ntifs.h>

#include <cstddef>
#include <string_view>

namespace platform {

/// Makes \Registry\Machine\System\CurrentControlSet\Services\<name> if it is missing.
NTSTATUS MakeServiceKey(std::u16string_view name);

/// Sets the value, making the keys of the path that are missing.
NTSTATUS SetValueOfKey(std::u16string_view path, std::u16string_view value, ULONG type,
                       const void* data, std::size_t size);

}  // namespace platform
