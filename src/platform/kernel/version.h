// The version that the machine reports to drivers.
#pragma once

#include <cstdint>

namespace platform {

/// Set before drivers are loaded.
void SetVersion(std::uint32_t major, std::uint32_t minor, std::uint32_t build);

}  // namespace platform
