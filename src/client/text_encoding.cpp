#include "client/text_encoding.h"

#include <array>
#include <cstdint>

namespace zpregmon {

namespace {

/// The ASCII characters that are written as they are.
using PlainTable = std::array<bool, 128>;

constexpr PlainTable MakePlainTable(bool json) {
    PlainTable plain{};
    for (unsigned unit = 0x20; unit < 0x7F; ++unit) {
        plain[unit] = true;
    }
    plain[0x7F] = json;
    plain['"'] = plain['\\'] = !json;
    return plain;
}

struct Json {
    static constexpr PlainTable kPlain = MakePlainTable(true);
    static constexpr bool kEscapeC1 = false;
    static constexpr bool kEscapeLoneSurrogates = true;
};

struct Terminal {
    static constexpr PlainTable kPlain = MakePlainTable(false);
    static constexpr bool kEscapeC1 = true;
    static constexpr bool kEscapeLoneSurrogates = false;
};

constexpr bool IsHighSurrogate(char16_t unit) {
    return (unit & 0xFC00) == 0xD800;
}
constexpr bool IsLowSurrogate(char16_t unit) {
    return (unit & 0xFC00) == 0xDC00;
}

char* WriteEscape(char* out, char16_t unit) {
    constexpr char kDigits[] = "0123456789abcdef";
    *out++ = '\\';
    *out++ = 'u';
    for (int shift = 12; shift >= 0; shift -= 4) {
        *out++ = kDigits[unit >> shift & 0xF];
    }
    return out;
}

char* WriteUtf8(char* out, std::uint32_t point) {
    const auto tail = [&](int shift) {
        *out++ = static_cast<char>(0x80 | (point >> shift & 0x3F));
    };
    if (point < 0x800) {
        *out++ = static_cast<char>(0xC0 | point >> 6);
    } else if (point < 0x10000) {
        *out++ = static_cast<char>(0xE0 | point >> 12);
        tail(6);
    } else {
        *out++ = static_cast<char>(0xF0 | point >> 18);
        tail(12);
        tail(6);
    }
    tail(0);
    return out;
}

/// Writes the character that starts at `text[at]`, which is no plain one, and moves `at` behind it.
template <typename Rules>
char* WriteSpecial(char* out, std::u16string_view text, std::size_t& at) {
    const char16_t unit = text[at++];
    if (unit < 0x80) {
        if (unit == u'"' || unit == u'\\') {
            *out++ = '\\';
            *out++ = static_cast<char>(unit);
            return out;
        }
        return WriteEscape(out, unit);
    }
    if (Rules::kEscapeC1 && unit < 0xA0) {
        return WriteEscape(out, unit);
    }
    if (IsHighSurrogate(unit) && at < text.size() && IsLowSurrogate(text[at])) {
        const std::uint32_t low = text[at++] & 0x3FFU;
        return WriteUtf8(out, 0x10000 + ((unit & 0x3FFU) << 10) + low);
    }
    if (IsHighSurrogate(unit) || IsLowSurrogate(unit)) {
        return Rules::kEscapeLoneSurrogates ? WriteEscape(out, unit) : WriteUtf8(out, 0xFFFD);
    }
    return WriteUtf8(out, unit);
}

template <typename Rules>
char* WriteText(char* out, std::u16string_view text) {
    std::size_t at = 0;
    while (at < text.size()) {
        const char16_t unit = text[at];
        if (unit < 0x80 && Rules::kPlain[unit]) {
            *out++ = static_cast<char>(unit);
            ++at;
        } else {
            out = WriteSpecial<Rules>(out, text, at);
        }
    }
    return out;
}

}  // namespace

char* WriteJsonText(char* out, std::u16string_view text) {
    return WriteText<Json>(out, text);
}

char* WriteTerminalText(char* out, std::u16string_view text) {
    return WriteText<Terminal>(out, text);
}

}  // namespace zpregmon
