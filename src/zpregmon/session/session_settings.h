// What a client may ask of the driver for its session.
#pragma once

#include "client/control_session.h"

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

namespace zpregmon {

/// What is absent or empty stays as the driver has it.
struct SessionSettings {
    std::optional<zpregflt::OperationMask> operations;
    std::optional<std::uint32_t> captureMaxSize;
    bool reportOriginal = false;
    std::vector<std::u16string> exemptImages;
    std::string dumpFile;  ///< path; UTF-8
};

/// Sends them to the driver, which keeps them when the session ends. An image that is exempt
/// already stays so. Throws ControlError.
void ApplySettings(const SessionSettings& settings, ControlSession& session);

}  // namespace zpregmon
