// What the drivers read from their service keys when they are loaded.
#pragma once

#include "zpregmon/session/session_settings.h"

#include <cstdint>
#include <optional>
#include <string>

namespace zpregmon {

/// Of zpregflt, below its Parameters key; what is absent or empty gets no value.
struct DriverSettings {
    /// Of these operations, captureMaxSize and reportOriginal.
    SessionSettings recording;
    std::uint32_t overrideMask = 0;
    std::string traceProcess;  ///< decimal id, or image name
    std::optional<zpregflt::OperationMask> traceOperations;
};

/// Writes them, and for zpklib the running program as the image that it trusts. The service keys
/// exist. There is always a Parameters key: without one the driver would capture no data. Throws
/// SystemError.
void WriteDriverSettings(const DriverSettings& settings);

}  // namespace zpregmon
