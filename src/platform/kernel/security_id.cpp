#include "platform/kernel/security_id.h"

#include <cstring>

namespace platform {

namespace {

constexpr std::uint64_t kNtAuthority = 5;
constexpr std::uint32_t kBuiltinDomain = 32;

struct Abbreviation {
    std::u16string_view text;
    std::uint64_t authority;
    std::vector<std::uint32_t> subAuthorities;
};

const std::vector<Abbreviation>& Abbreviations() {
    static const std::vector<Abbreviation> table = {
        {u"WD", 1, {0}},                               // everyone
        {u"CO", 3, {0}},                               // creator owner
        {u"CG", 3, {1}},                               // creator group
        {u"IU", kNtAuthority, {4}},                    // interactive
        {u"AN", kNtAuthority, {7}},                    // anonymous
        {u"AU", kNtAuthority, {11}},                   // authenticated users
        {u"RC", kNtAuthority, {12}},                   // restricted code
        {u"SY", kNtAuthority, {18}},                   // local system
        {u"LS", kNtAuthority, {19}},                   // local service
        {u"NS", kNtAuthority, {20}},                   // network service
        {u"BA", kNtAuthority, {kBuiltinDomain, 544}},  // administrators
        {u"BU", kNtAuthority, {kBuiltinDomain, 545}},  // users
    };
    return table;
}

/// A decimal number, or a hexadecimal one after 0x, of at most `most`.
std::optional<std::uint64_t> TakeNumber(std::u16string_view& text, std::uint64_t most) {
    const bool hexadecimal = text.starts_with(u"0x") || text.starts_with(u"0X");
    if (hexadecimal) text.remove_prefix(2);
    const std::uint64_t base = hexadecimal ? 16 : 10;
    std::uint64_t number = 0;
    std::size_t digits = 0;
    for (; digits < text.size(); ++digits) {
        const char16_t c = text[digits];
        std::uint64_t digit = base;
        if (c >= u'0' && c <= u'9') digit = c - u'0';
        if (c >= u'a' && c <= u'f') digit = c - u'a' + 10;
        if (c >= u'A' && c <= u'F') digit = c - u'A' + 10;
        if (digit >= base) break;
        number = number * base + digit;
        if (number > most) return std::nullopt;
    }
    text.remove_prefix(digits);
    return digits == 0 ? std::nullopt : std::optional(number);
}

}  // namespace

std::optional<SecurityId> TakeSecurityId(std::u16string_view& text) {
    if (!text.starts_with(u"S-1-")) {
        for (const Abbreviation& row : Abbreviations()) {
            if (text.starts_with(row.text)) {
                text.remove_prefix(row.text.size());
                return SecurityId{row.authority, row.subAuthorities};
            }
        }
        return std::nullopt;
    }
    text.remove_prefix(4);
    SecurityId id;
    const auto authority = TakeNumber(text, 0xFFFF'FFFF'FFFF);
    if (!authority) return std::nullopt;
    id.authority = *authority;
    while (text.starts_with(u'-')) {
        text.remove_prefix(1);
        const auto subAuthority = TakeNumber(text, 0xFFFF'FFFF);
        if (!subAuthority) return std::nullopt;
        id.subAuthorities.push_back(static_cast<std::uint32_t>(*subAuthority));
    }
    const std::size_t count = id.subAuthorities.size();
    if (count == 0 || count > SecurityId::kMostSubAuthorities) return std::nullopt;
    return id;
}

std::vector<std::byte> EncodeSecurityId(const SecurityId& id) {
    constexpr std::size_t kHeader = offsetof(SID, SubAuthority);
    std::vector<std::byte> bytes(kHeader + id.subAuthorities.size() * sizeof(ULONG));
    bytes[0] = std::byte{1};
    bytes[1] = static_cast<std::byte>(id.subAuthorities.size());
    for (int index = 0; index < 6; ++index) {  // the authority is big-endian, all else little
        bytes[2 + index] = static_cast<std::byte>(id.authority >> (8 * (5 - index)));
    }
    std::memcpy(bytes.data() + kHeader, id.subAuthorities.data(), bytes.size() - kHeader);
    return bytes;
}

std::optional<SecurityId> DecodeSecurityId(const std::byte* bytes, std::size_t size) {
    constexpr std::size_t kHeader = offsetof(SID, SubAuthority);
    if (size < kHeader || bytes[0] != std::byte{1}) return std::nullopt;
    const auto count = std::to_integer<std::size_t>(bytes[1]);
    if (count > SecurityId::kMostSubAuthorities || size < kHeader + count * sizeof(ULONG)) {
        return std::nullopt;
    }
    SecurityId id;
    for (int index = 0; index < 6; ++index) {
        id.authority = id.authority << 8 | std::to_integer<std::uint64_t>(bytes[2 + index]);
    }
    id.subAuthorities.resize(count);
    std::memcpy(id.subAuthorities.data(), bytes + kHeader, count * sizeof(ULONG));
    return id;
}

}  // namespace platform
