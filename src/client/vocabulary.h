// The words by which people and programs name record kinds and operations.
#pragma once

#include "records/record_format.h"

#include <optional>
#include <string>
#include <string_view>

namespace zpregmon {

/// E.g. key-created; `type` is one that the decoder lets through.
std::string_view RecordName(zpregflt::RecordType type);

/// A set of operations, as names separated by commas (any case) or as a number, e.g.
/// "CreateKeyEx,SetValueKey" or "0x402". On failure nothing, and `problem` says why.
std::optional<zpregflt::OperationMask> ParseOperations(std::string_view text, std::string& problem);

}  // namespace zpregmon
