#include "client/system_names.h"

#include <array>
#include <cstddef>

namespace zpregmon {

namespace {

constexpr std::array<std::string_view, 12> kValueTypes = {
    "REG_NONE",
    "REG_SZ",
    "REG_EXPAND_SZ",
    "REG_BINARY",
    "REG_DWORD",
    "REG_DWORD_BIG_ENDIAN",
    "REG_LINK",
    "REG_MULTI_SZ",
    "REG_RESOURCE_LIST",
    "REG_FULL_RESOURCE_DESCRIPTOR",
    "REG_RESOURCE_REQUIREMENTS_LIST",
    "REG_QWORD",
};

constexpr std::array<std::string_view, 10> kKeyClasses = {
    "KeyBasicInformation",          "KeyNodeInformation",       "KeyFullInformation",
    "KeyNameInformation",           "KeyCachedInformation",     "KeyFlagsInformation",
    "KeyVirtualizationInformation", "KeyHandleTagsInformation", "KeyTrustInformation",
    "KeyLayerInformation",
};

constexpr std::array<std::string_view, 6> kValueClasses = {
    "KeyValueBasicInformation",          "KeyValueFullInformation",
    "KeyValuePartialInformation",        "KeyValueFullInformationAlign64",
    "KeyValuePartialInformationAlign64", "KeyValueLayerInformation",
};

constexpr std::array<std::string_view, 6> kSetClasses = {
    "KeyWriteTimeInformation",         "KeyWow64FlagsInformation", "KeyControlFlagsInformation",
    "KeySetVirtualizationInformation", "KeySetDebugInformation",   "KeySetHandleTagsInformation",
};

template <std::size_t Count>
std::string_view Find(const std::array<std::string_view, Count>& names, std::uint32_t number) {
    return number < Count ? names[number] : std::string_view();
}

}  // namespace

std::string_view ValueTypeName(std::uint32_t type) {
    return Find(kValueTypes, type);
}

std::string_view KeyInformationName(std::uint32_t informationClass) {
    return Find(kKeyClasses, informationClass);
}

std::string_view ValueInformationName(std::uint32_t informationClass) {
    return Find(kValueClasses, informationClass);
}

std::string_view SetInformationName(std::uint32_t informationClass) {
    return Find(kSetClasses, informationClass);
}

std::string_view SaveFormatName(std::uint32_t format) {
    switch (format) {
        case 1:
            return "REG_STANDARD_FORMAT";
        case 2:
            return "REG_LATEST_FORMAT";
        case 4:
            return "REG_NO_COMPRESSION";
        default:
            return {};
    }
}

}  // namespace zpregmon
