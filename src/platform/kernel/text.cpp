#include "platform/kernel/text.h"

#include <algorithm>
#include <cstdint>

namespace platform {

namespace {

constexpr char32_t kReplacement = 0xFFFD;

constexpr bool IsHighSurrogate(char32_t unit) {
    return unit >= 0xD800 && unit < 0xDC00;
}
constexpr bool IsLowSurrogate(char32_t unit) {
    return unit >= 0xDC00 && unit < 0xE000;
}

/// Takes one character off the front.
char32_t TakeCharacter(std::u16string_view& text) {
    const char32_t first = text.front();
    text.remove_prefix(1);
    if (IsHighSurrogate(first) && !text.empty() && IsLowSurrogate(text.front())) {
        const char32_t low = text.front();
        text.remove_prefix(1);
        return 0x10000 + ((first - 0xD800) << 10) + (low - 0xDC00);
    }
    return IsHighSurrogate(first) || IsLowSurrogate(first) ? kReplacement : first;
}

void AppendUtf8(std::string& text, char32_t character) {
    const auto tail = [character](unsigned shift) {
        return static_cast<char>(0x80 | (character >> shift & 0x3F));
    };
    if (character < 0x80) {
        text += static_cast<char>(character);
    } else if (character < 0x800) {
        text += {static_cast<char>(0xC0 | character >> 6), tail(0)};
    } else if (character < 0x10000) {
        text += {static_cast<char>(0xE0 | character >> 12), tail(6), tail(0)};
    } else {
        text += {static_cast<char>(0xF0 | character >> 18), tail(12), tail(6), tail(0)};
    }
}

/// What the first byte of a UTF-8 sequence says: bytes in all, and its share of the character.
struct Lead {
    std::size_t length;
    char32_t bits;
    char32_t smallest;  ///< smaller ones must be written shorter
};

Lead ReadLead(unsigned char byte) {
    if (byte < 0x80) return {1, byte, 0};
    if ((byte & 0xE0) == 0xC0) return {2, byte & 0x1FU, 0x80};
    if ((byte & 0xF0) == 0xE0) return {3, byte & 0x0FU, 0x800};
    if ((byte & 0xF8) == 0xF0) return {4, byte & 0x07U, 0x10000};
    return {1, kReplacement, 0};
}

/// Takes one character off the front; U+FFFD for one byte that belongs to none.
char32_t TakeCharacter(std::string_view& text) {
    const Lead lead = ReadLead(static_cast<unsigned char>(text.front()));
    char32_t character = lead.bits;
    bool good = lead.length <= text.size();
    for (std::size_t i = 1; good && i < lead.length; ++i) {
        const auto byte = static_cast<unsigned char>(text[i]);
        good = (byte & 0xC0) == 0x80;
        character = character << 6 | (byte & 0x3FU);
    }
    good = good && character >= lead.smallest && character <= 0x10FFFF &&
           !IsHighSurrogate(character) && !IsLowSurrogate(character);
    text.remove_prefix(good ? lead.length : 1);
    return good ? character : kReplacement;
}

}  // namespace

bool EqualIgnoringCase(std::u16string_view first, std::u16string_view second) {
    return first.size() == second.size() &&
           std::equal(first.begin(), first.end(), second.begin(),
                      [](char16_t a, char16_t b) { return a == b || Upcase(a) == Upcase(b); });
}

int CompareIgnoringCase(std::u16string_view first, std::u16string_view second) {
    const std::size_t common = std::min(first.size(), second.size());
    for (std::size_t i = 0; i < common; ++i) {
        const int difference = Upcase(first[i]) - Upcase(second[i]);
        if (difference != 0) return difference;
    }
    return static_cast<int>(first.size()) - static_cast<int>(second.size());
}

std::size_t HashIgnoringCase(std::u16string_view text) {
    std::uint64_t hash = 0xCBF29CE484222325;
    for (const char16_t character : text) {
        hash = (hash ^ Upcase(character)) * 0x100000001B3;
    }
    return hash;
}

std::string ToUtf8(std::u16string_view text) {
    std::string result;
    result.reserve(text.size());
    while (!text.empty()) {
        AppendUtf8(result, TakeCharacter(text));
    }
    return result;
}

std::u16string ToUtf16(std::string_view text) {
    std::u16string result;
    result.reserve(text.size());
    while (!text.empty()) {
        const char32_t character = TakeCharacter(text);
        if (character < 0x10000) {
            result += static_cast<char16_t>(character);
        } else {
            result += static_cast<char16_t>(0xD800 + ((character - 0x10000) >> 10));
            result += static_cast<char16_t>(0xDC00 + ((character - 0x10000) & 0x3FF));
        }
    }
    return result;
}

}  // namespace platform
