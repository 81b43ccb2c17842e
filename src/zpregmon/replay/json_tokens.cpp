#include "zpregmon/replay/json_tokens.h"

#include <fmt/format.h>

#include <charconv>

namespace zpregmon {

namespace {

[[noreturn]] void Fail(std::string_view expected, std::string_view token) {
    constexpr std::size_t kMostShown = 40;
    const bool cut = token.size() > kMostShown;
    throw TokenError(fmt::format("expected {}, found {}{}", expected, token.substr(0, kMostShown),
                                 cut ? "..." : ""));
}

std::string_view Trim(std::string_view token) {
    const std::size_t end = token.find_last_not_of(" \t\r\n");
    return token.substr(0, end == std::string_view::npos ? 0 : end + 1);
}

/// What is between the quotes; escapes are still in it.
std::string_view Inside(std::string_view token, std::string_view expected) {
    const std::string_view trimmed = Trim(token);
    if (trimmed.size() < 2 || trimmed.front() != '"' || trimmed.back() != '"') {
        Fail(expected, trimmed);
    }
    return trimmed.substr(1, trimmed.size() - 2);
}

/// The digit's value, or a number above 15.
unsigned HexDigit(char digit) {
    if (digit >= '0' && digit <= '9') {
        return static_cast<unsigned>(digit - '0');
    }
    if (digit >= 'a' && digit <= 'f') {
        return static_cast<unsigned>(digit - 'a' + 10);
    }
    return 16;
}

/// JSON allows capital digits in escapes.
unsigned EscapeDigit(char digit) {
    return HexDigit(digit >= 'A' && digit <= 'F' ? static_cast<char>(digit - 'A' + 'a') : digit);
}

/// Decodes the escape whose backslash is at `text[at]` and moves `at` behind it.
char16_t DecodeEscape(std::string_view text, std::size_t& at) {
    constexpr std::string_view kLetters = "\"\\/bfnrt";
    constexpr std::u16string_view kMeanings = u"\"\\/\b\f\n\r\t";
    const char letter = at + 1 < text.size() ? text[at + 1] : '\0';
    if (const std::size_t known = kLetters.find(letter); known != std::string_view::npos) {
        at += 2;
        return kMeanings[known];
    }
    constexpr std::size_t kDigits = 4;
    if (letter != 'u' || at + 2 + kDigits > text.size()) {
        Fail("a JSON escape", text.substr(at));
    }
    unsigned unit = 0;
    for (std::size_t i = 0; i < kDigits; ++i) {
        const unsigned digit = EscapeDigit(text[at + 2 + i]);
        if (digit > 15) {
            Fail("a JSON escape", text.substr(at));
        }
        unit = unit << 4 | digit;
    }
    at += 2 + kDigits;
    return static_cast<char16_t>(unit);
}

}  // namespace

std::u16string_view DecodeText(std::string_view token, std::pmr::memory_resource& memory) {
    const std::string_view text = Inside(token, "a string");
    if (text.empty()) {
        return {};
    }
    auto* const units =
        static_cast<char16_t*>(memory.allocate(text.size() * sizeof(char16_t), alignof(char16_t)));
    std::size_t count = 0;
    for (std::size_t at = 0; at < text.size();) {
        const auto c = static_cast<unsigned char>(text[at]);
        if (c == '\\') {
            units[count++] = DecodeEscape(text, at);
        } else if (c < 0x20 || c > 0x7E || c == '"') {
            Fail("a string of printable ASCII characters and escapes", token);
        } else {
            units[count++] = c;
            ++at;
        }
    }
    return {units, count};
}

std::span<const std::byte> DecodeHexBytes(std::string_view token,
                                          std::pmr::memory_resource& memory) {
    constexpr std::string_view kExpected = "a string of lower-case hex digits, two for each byte";
    const std::string_view digits = Inside(token, kExpected);
    if (digits.size() % 2 != 0) {
        Fail(kExpected, token);
    }
    if (digits.empty()) {
        return {};
    }
    auto* const bytes = static_cast<std::byte*>(memory.allocate(digits.size() / 2, 1));
    for (std::size_t i = 0; i < digits.size() / 2; ++i) {
        const unsigned high = HexDigit(digits[2 * i]);
        const unsigned low = HexDigit(digits[2 * i + 1]);
        if (high > 15 || low > 15) {
            Fail(kExpected, token);
        }
        bytes[i] = static_cast<std::byte>(high << 4 | low);
    }
    return {bytes, digits.size() / 2};
}

std::uint32_t DecodeHexNumber(std::string_view token) {
    constexpr std::string_view kExpected = "a string of 8 lower-case hex digits";
    const std::string_view digits = Inside(token, kExpected);
    if (digits.size() != 8) {
        Fail(kExpected, token);
    }
    std::uint32_t number = 0;
    for (const char c : digits) {
        const unsigned digit = HexDigit(c);
        if (digit > 15) {
            Fail(kExpected, token);
        }
        number = number << 4 | digit;
    }
    return number;
}

std::uint64_t DecodeNumber(std::string_view token, std::uint64_t most) {
    const std::string_view digits = Trim(token);
    std::uint64_t number = 0;
    const auto [end, error] = std::from_chars(digits.data(), digits.data() + digits.size(), number);
    if (error != std::errc() || end != digits.data() + digits.size() || number > most) {
        Fail(fmt::format("an unsigned number up to {}", most), digits);
    }
    return number;
}

bool DecodeBool(std::string_view token) {
    const std::string_view word = Trim(token);
    if (word != "true" && word != "false") {
        Fail("true or false", word);
    }
    return word == "true";
}

const std::string_view* JsonMembers::Find(std::string_view key) const {
    for (const Member& member : members_) {
        if (member.key == key) {
            return &member.token;
        }
    }
    return nullptr;
}

std::string_view JsonMembers::Get(std::string_view key, std::string_view expected) const {
    const std::string_view* token = Find(key);
    if (token == nullptr) {
        throw TokenError(fmt::format("'{}' is missing, expected {}", key, expected));
    }
    return *token;
}

}  // namespace zpregmon
