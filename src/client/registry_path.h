// Registry paths as people write them.
#pragma once

#include "client/wire_text.h"

#include <string>
#include <string_view>

namespace zpregmon {

/// A path with its root abbreviated: `root` (HKLM, HKU; empty when the path is under neither), then
/// `rest`, which is the path's end.
struct ShortPath {
    std::string_view root;
    WireText rest;
};
ShortPath ShortenPath(std::u16string_view path);

/// The same as one text that a terminal shows as it stands.
std::string ShortPathText(std::u16string_view path);

/// The path with its root spelled out: what ShortenPath would have made it of, also for HKEY_USERS
/// and HKEY_LOCAL_MACHINE. Other paths stay as they are.
std::u16string LengthenPath(std::u16string_view path);

/// Names that differ only in case are the same: letters of the Latin, Greek and Cyrillic scripts in
/// lower case, other characters as they are.
constexpr char16_t FoldCase(char16_t c) {
    const auto shifted = [c](int by) { return static_cast<char16_t>(c + by); };
    if (c < 0x80) {
        return c >= u'A' && c <= u'Z' ? shifted(0x20) : c;
    }
    const bool isCapital = (c >= 0xC0 && c <= 0xDE && c != 0xD7) ||     // Latin-1
                           (c >= 0x391 && c <= 0x3AB && c != 0x3A2) ||  // Greek
                           (c >= 0x410 && c <= 0x42F);                  // Cyrillic
    if (isCapital) {
        return shifted(0x20);
    }
    if (c >= 0x400 && c <= 0x40F) {
        return shifted(0x50);
    }
    // Pairs of a capital and a small letter, which begin with an even number.
    const bool isPair = (c >= 0x100 && c <= 0x12F) || (c >= 0x132 && c <= 0x137) ||
                        (c >= 0x14A && c <= 0x177) || (c >= 0x460 && c <= 0x481) ||
                        (c >= 0x48A && c <= 0x4BF) || (c >= 0x4D0 && c <= 0x52F);
    return isPair ? static_cast<char16_t>(c | 1U) : c;
}

}  // namespace zpregmon
