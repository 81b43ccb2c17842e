// The words by which people and programs name record kinds and operations.
#pragma once

#include "records/record_format.h"

#include <optional>
#include <string>
#include <string_view>

namespace zpregmon {

/// E.g. key-created; `type` is one that the decoder lets through.
std::string_view RecordName(zpregflt::RecordType type);

/// The kinds that a word names: one by its own name (value-set) or those of an operation
/// (SetValueKey), any case; bit n is record type n. Nothing for another word.
std::optional<std::uint32_t> ParseKind(std::string_view word);

/// A set of operations, as names separated by commas (any case) or as a number, e.g.
/// "CreateKeyEx,SetValueKey" or "0x402". On failure nothing, and `problem` says why.
std::optional<zpregflt::OperationMask> ParseOperations(std::string_view text, std::string& problem);

}  // namespace zpregmon
