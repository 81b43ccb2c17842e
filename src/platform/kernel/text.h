// UTF-16 text on the hosted side: counted strings as views, and UTF-8 for messages.
#pragma once

#include <wdm.h>

#include <string>
#include <string_view>

namespace platform {

inline std::u16string_view View(const UNICODE_STRING& text) {
    return {reinterpret_cast<const char16_t*>(text.Buffer), text.Length / sizeof(WCHAR)};
}

/// A descriptor of `text`, valid as long as the text stays where it is.
inline UNICODE_STRING Describe(std::u16string_view text) {
    const auto bytes = static_cast<USHORT>(text.size() * sizeof(WCHAR));
    return {bytes, bytes, reinterpret_cast<PWSTR>(const_cast<char16_t*>(text.data()))};
}

/// Upper case by the table that the registry and the object manager compare names with.
char16_t Upcase(char16_t character);
bool EqualIgnoringCase(std::u16string_view first, std::u16string_view second);
/// Negative, zero or positive by the upper-case code units.
int CompareIgnoringCase(std::u16string_view first, std::u16string_view second);
/// FNV-like hash over the upper-case code units.
std::size_t HashIgnoringCase(std::u16string_view text);

/// Lone surrogates become U+FFFD.
std::string ToUtf8(std::u16string_view text);
std::u16string ToUtf16(std::string_view text);

}  // namespace platform
