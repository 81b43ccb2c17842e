// Which program a process runs.
#pragma once

#include <cstdint>
#include <optional>
#include <string>

namespace zpregmon {

/// The path of the image of the process that had the id at that time (100-nanosecond intervals
/// since 1601), if it can still be asked.
std::optional<std::u16string> LookUpImage(std::uint32_t processId, std::uint64_t time);

}  // namespace zpregmon
