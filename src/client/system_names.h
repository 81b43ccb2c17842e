// The system's own names for the numbers in events. An empty name: the number has none here.
#pragma once

#include <cstdint>
#include <string_view>

namespace zpregmon {

/// E.g. REG_SZ.
std::string_view ValueTypeName(std::uint32_t type);
/// E.g. KeyBasicInformation, of a key that is queried or enumerated.
std::string_view KeyInformationName(std::uint32_t informationClass);
/// E.g. KeyValuePartialInformation.
std::string_view ValueInformationName(std::uint32_t informationClass);
/// E.g. KeyWriteTimeInformation, of a key whose information is set.
std::string_view SetInformationName(std::uint32_t informationClass);
/// E.g. REG_LATEST_FORMAT, of a saved key.
std::string_view SaveFormatName(std::uint32_t format);

/// Of a value that holds text: REG_SZ, REG_EXPAND_SZ and REG_LINK; of one that holds several.
inline constexpr std::uint32_t kRegSz = 1, kRegExpandSz = 2, kRegBinary = 3, kRegDword = 4,
                               kRegDwordBigEndian = 5, kRegLink = 6, kRegMultiSz = 7,
                               kRegQword = 11;

}  // namespace zpregmon
