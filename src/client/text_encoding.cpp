#include "client/text_encoding.h"

#include <emmintrin.h>
#include <fmt/format.h>

#include <bit>
#include <cstdint>
#include <cstring>

namespace zpregmon {

namespace {

constexpr char kHexDigits[] = "0123456789abcdef";

struct Json {
    static constexpr char16_t kLastPlain = 0x7F;
    static constexpr bool kEscapeQuotes = true;     ///< and backslashes
    static constexpr bool kEscapeControls = false;  ///< beyond ASCII
    static constexpr bool kEscapeLoneSurrogates = true;
};

struct Terminal {
    static constexpr char16_t kLastPlain = 0x7E;
    static constexpr bool kEscapeQuotes = false;
    static constexpr bool kEscapeControls = true;
    static constexpr bool kEscapeLoneSurrogates = false;
};

/// C1 controls, and what turns the direction or ends the line of text on a terminal, with the marks
/// of no width that stand among those.
constexpr bool IsControl(char16_t unit) {
    return unit < 0xA0 || unit == 0x061C || (unit >= 0x200B && unit <= 0x200F) ||
           (unit >= 0x2028 && unit <= 0x202E) || (unit >= 0x2066 && unit <= 0x2069) ||
           unit == 0xFEFF;
}

/// Whether the unit is written as it is, in one byte.
template <typename Rules>
constexpr bool IsPlain(char16_t unit) {
    return unit >= 0x20 && unit <= Rules::kLastPlain &&
           !(Rules::kEscapeQuotes && (unit == u'"' || unit == u'\\'));
}

/// Every processor that the program runs on has SSE2.
constexpr std::size_t kUnitsAtOnce = sizeof(__m128i) / sizeof(char16_t);

/// Writes eight units as if they were plain; returns how many of the first ones are.
template <typename Rules>
unsigned WritePlainUnits(char* out, const std::byte* text) {
    const __m128i units = _mm_loadu_si128(reinterpret_cast<const __m128i*>(text));
    _mm_storel_epi64(reinterpret_cast<__m128i*>(out), _mm_packus_epi16(units, units));
    // The comparisons are of signed numbers: units from 0x8000 on are below 0x20, too.
    __m128i special = _mm_or_si128(_mm_cmplt_epi16(units, _mm_set1_epi16(0x20)),
                                   _mm_cmpgt_epi16(units, _mm_set1_epi16(Rules::kLastPlain)));
    if constexpr (Rules::kEscapeQuotes) {
        special = _mm_or_si128(special, _mm_cmpeq_epi16(units, _mm_set1_epi16(u'"')));
        special = _mm_or_si128(special, _mm_cmpeq_epi16(units, _mm_set1_epi16(u'\\')));
    }
    const auto mask = static_cast<unsigned>(_mm_movemask_epi8(special));
    return static_cast<unsigned>(std::countr_zero(mask | 0x10000U)) / sizeof(char16_t);
}

constexpr bool IsHighSurrogate(char16_t unit) {
    return (unit & 0xFC00) == 0xD800;
}
constexpr bool IsLowSurrogate(char16_t unit) {
    return (unit & 0xFC00) == 0xDC00;
}

char* WriteEscape(char* out, char16_t unit) {
    *out++ = '\\';
    *out++ = 'u';
    for (int shift = 12; shift >= 0; shift -= 4) {
        *out++ = kHexDigits[unit >> shift & 0xF];
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
char* WriteSpecial(char* out, WireText text, std::size_t& at) {
    const char16_t unit = text[at++];
    if (unit < 0x80) {
        if (unit == u'"' || unit == u'\\') {
            *out++ = '\\';
            *out++ = static_cast<char>(unit);
            return out;
        }
        return WriteEscape(out, unit);
    }
    if (Rules::kEscapeControls && IsControl(unit)) {
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
char* WriteText(char* out, WireText text) {
    std::size_t at = 0;
    while (at + kUnitsAtOnce <= text.size()) {
        const unsigned plain = WritePlainUnits<Rules>(out, text.data() + at * sizeof(char16_t));
        out += plain;
        at += plain;
        if (plain == kUnitsAtOnce) {
            continue;
        }
        if (Rules::kEscapeQuotes && text[at] == u'\\') {  // the one that paths are full of
            *out++ = '\\';
            *out++ = '\\';
            ++at;
        } else {
            out = WriteSpecial<Rules>(out, text, at);
        }
    }
    while (at < text.size()) {
        if (const char16_t unit = text[at]; IsPlain<Rules>(unit)) {
            *out++ = static_cast<char>(unit);
            ++at;
        } else {
            out = WriteSpecial<Rules>(out, text, at);
        }
    }
    return out;
}

/// The digits of sixteen half bytes.
__m128i HexDigits(__m128i halves) {
    const __m128i letters = _mm_cmpgt_epi8(halves, _mm_set1_epi8(9));
    const __m128i toLetter = _mm_and_si128(letters, _mm_set1_epi8('a' - '0' - 10));
    return _mm_add_epi8(_mm_add_epi8(halves, _mm_set1_epi8('0')), toLetter);
}

}  // namespace

char* WriteJsonText(char* out, WireText text) {
    return WriteText<Json>(out, text);
}

char* WriteTerminalText(char* out, WireText text) {
    return WriteText<Terminal>(out, text);
}

char* WriteHex(char* out, std::span<const std::byte> bytes) {
    constexpr std::size_t kAtOnce = sizeof(__m128i);
    const __m128i lowHalf = _mm_set1_epi8(0x0F);
    std::size_t at = 0;
    for (; at + kAtOnce <= bytes.size(); at += kAtOnce) {
        const __m128i data = _mm_loadu_si128(reinterpret_cast<const __m128i*>(bytes.data() + at));
        const __m128i high = HexDigits(_mm_and_si128(_mm_srli_epi16(data, 4), lowHalf));
        const __m128i low = HexDigits(_mm_and_si128(data, lowHalf));
        _mm_storeu_si128(reinterpret_cast<__m128i*>(out), _mm_unpacklo_epi8(high, low));
        _mm_storeu_si128(reinterpret_cast<__m128i*>(out + kAtOnce), _mm_unpackhi_epi8(high, low));
        out += 2 * kAtOnce;
    }
    for (; at < bytes.size(); ++at) {
        const auto byte = std::to_integer<unsigned>(bytes[at]);
        *out++ = kHexDigits[byte >> 4];
        *out++ = kHexDigits[byte & 0xF];
    }
    return out;
}

char* WriteHex64(char* out, std::uint64_t number) {
    // The halves of each byte, highest first, in sixteen bytes.
    const __m128i bytes = _mm_set_epi64x(0, static_cast<long long>(__builtin_bswap64(number)));
    const __m128i lowHalf = _mm_set1_epi8(0x0F);
    const __m128i high = _mm_and_si128(_mm_srli_epi16(bytes, 4), lowHalf);
    const __m128i low = _mm_and_si128(bytes, lowHalf);
    _mm_storeu_si128(reinterpret_cast<__m128i*>(out), HexDigits(_mm_unpacklo_epi8(high, low)));
    return out + sizeof(__m128i);
}

char* WriteNumber(char* out, std::uint64_t number) {
    if (number < 10) {
        *out = static_cast<char>('0' + number);
        return out + 1;
    }
    const fmt::format_int text(number);
    std::memcpy(out, text.data(), text.size());
    return out + text.size();
}

std::optional<std::u16string> FromUtf8(std::string_view text) {
    std::u16string result;
    for (std::size_t at = 0; at < text.size();) {
        const auto lead = static_cast<unsigned char>(text[at++]);
        const unsigned tails = lead < 0x80 ? 0 : lead < 0xE0 ? 1 : lead < 0xF0 ? 2 : 3;
        constexpr std::uint32_t kLeast[] = {0, 0x80, 0x800, 0x10000};
        std::uint32_t point = tails == 0 ? lead : lead & (0x3FU >> tails);
        if ((lead >= 0x80 && lead < 0xC2) || lead > 0xF4 || tails > text.size() - at) {
            return std::nullopt;
        }
        for (unsigned i = 0; i < tails; ++i) {
            const auto tail = static_cast<unsigned char>(text[at++]);
            if ((tail & 0xC0U) != 0x80) {
                return std::nullopt;
            }
            point = point << 6 | (tail & 0x3FU);
        }
        if (point < kLeast[tails] || point > 0x10FFFF || (point >= 0xD800 && point < 0xE000)) {
            return std::nullopt;
        }
        if (point >= 0x10000) {
            result += static_cast<char16_t>(0xD800 + ((point - 0x10000) >> 10));
            point = 0xDC00 + (point & 0x3FF);
        }
        result += static_cast<char16_t>(point);
    }
    return result;
}

std::string ToTerminal(WireText text) {
    std::string result(text.size() * kMostBytesPerUnit, '\0');
    char* const end = WriteTerminalText(result.data(), text);
    result.resize(static_cast<std::size_t>(end - result.data()));
    return result;
}

}  // namespace zpregmon
