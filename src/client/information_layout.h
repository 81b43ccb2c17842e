// Blocks of key and value information as the system lays them out.
#pragma once

#include "client/event.h"

#include <cstdint>
#include <optional>

namespace zpregmon {

/// What a block says about a key; what its class does not have is absent.
struct KeyFacts {
    std::optional<std::uint64_t> lastWrite;  ///< as Event::systemTime
    std::optional<WireText> name;
    std::optional<WireText> className;
    std::optional<std::uint32_t> subkeys;
    std::optional<std::uint32_t> values;
};
/// Nothing for a class that is not known and for a block that is too short for its class.
std::optional<KeyFacts> ReadKeyInformation(std::uint32_t informationClass, Bytes data);

/// What a block says about a value. A class without data leaves `data` absent.
struct ValueFacts {
    std::optional<WireText> name;
    std::uint32_t type = 0;
    std::optional<CapturedData> data;
};
std::optional<ValueFacts> ReadValueInformation(std::uint32_t informationClass, Bytes data);

}  // namespace zpregmon
