// Security identifiers: who an access list speaks of.
#pragma once

#include <ntifs.h>

#include <cstdint>
#include <optional>
#include <string_view>
#include <vector>

namespace platform {

struct SecurityId {
    static constexpr std::size_t kMostSubAuthorities = 15;

    std::uint64_t authority = 0;  ///< 48 bits
    std::vector<std::uint32_t> subAuthorities;

    bool operator==(const SecurityId&) const = default;
};

/// Takes an identifier off the front of `text`: an account abbreviation (SY, BA, WD, RC, BU, AU,
/// CO, CG, LS, NS, IU, AN) or S-1-...
std::optional<SecurityId> TakeSecurityId(std::u16string_view& text);

/// The SID's bytes as in a descriptor, and back; nothing when they are no SID within `size`.
std::vector<std::byte> EncodeSecurityId(const SecurityId& id);
std::optional<SecurityId> DecodeSecurityId(const std::byte* bytes, std::size_t size);

}  // namespace platform
