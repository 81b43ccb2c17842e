// Builds the input of the requests that change the exemption list.
#pragma once

#include <array>
#include <cstddef>
#include <optional>
#include <span>
#include <string>
#include <vector>

namespace zpregmon {

/// One entry of the exemption list; at least one of the first two members is given. What each
/// member matches is documented with ExemptionEntry in supportlib/zpklib.h.
struct Exemption {
    std::optional<std::string> narrowName;  ///< not empty
    std::optional<std::u16string> imageName;
    std::optional<std::array<std::byte, 16>> identifier;
    std::optional<std::u16string> creatorName;
};

/// The chain of entries in wire form. Throws std::invalid_argument for an entry that the driver
/// would refuse: without a name, with an empty narrow name, with a zero inside a name, or too long
/// for 16-bit offsets.
std::vector<std::byte> BuildExemptionRequest(std::span<const Exemption> exemptions);

}  // namespace zpregmon
