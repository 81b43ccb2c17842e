// Options of the command line that say what the driver records, for every command that has them.
// What is written to outlives the parsing.
#pragma once

#include "zpregmon/session/session_settings.h"

#include <CLI/CLI.hpp>

#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <vector>

namespace zpregmon {

/// --operations, --capture-max and --report-original.
void AddRecordingOptions(CLI::App& command, SessionSettings& settings);
/// --exempt.
void AddExemptOption(CLI::App& command, std::vector<std::u16string>& images);
/// --buffers, at most `most`.
void AddBuffersOption(CLI::App& command, SessionOptions& session, std::size_t most);
/// --override: bits of driver/control_codes.h.
void AddOverrideOption(CLI::App& command, std::uint32_t& mask);
/// An option that takes a set of operations, by name or as a number.
void AddOperationsOption(CLI::App& command, const char* name, const char* description,
                         std::optional<zpregflt::OperationMask>& operations);

}  // namespace zpregmon
