// The string form of security descriptors, e.g. O:BAG:SYD:P(A;;GA;;;SY)(A;;GR;;;WD).
#include "platform/kernel/security_descriptor.h"
#include "platform/kernel/security_id.h"

#include <algorithm>
#include <array>
#include <cstring>
#include <utility>

namespace platform {

namespace {

struct Flag {
    std::u16string_view text;
    std::uint32_t value;
};

/// The control bits of a SACL are those of a DACL, shifted by this.
constexpr int kSaclShift = 1;
/// Where SE_DACL_PRESENT stands for the SACL.
constexpr int kSaclPresentShift = 2;

constexpr std::array<Flag, 3> kListFlags = {{
    {u"AR", SE_DACL_AUTO_INHERIT_REQ},
    {u"AI", SE_DACL_AUTO_INHERITED},
    {u"P", SE_DACL_PROTECTED},
}};

constexpr std::array<Flag, 7> kAceFlags = {{
    {u"OI", 0x01},
    {u"CI", 0x02},
    {u"NP", 0x04},
    {u"IO", 0x08},
    {u"ID", 0x10},
    {u"SA", 0x40},
    {u"FA", 0x80},
}};

constexpr std::array<Flag, 16> kRights = {{
    {u"GA", GENERIC_ALL},
    {u"GR", GENERIC_READ},
    {u"GW", GENERIC_WRITE},
    {u"GX", GENERIC_EXECUTE},
    {u"RC", READ_CONTROL},
    {u"SD", DELETE_ACCESS},
    {u"WD", WRITE_DAC},
    {u"WO", WRITE_OWNER},
    {u"KA", KEY_ALL_ACCESS},
    {u"KR", KEY_READ},
    {u"KW", KEY_WRITE},
    {u"KX", KEY_READ},
    {u"FA", FILE_ALL_ACCESS},
    {u"FR", FILE_GENERIC_READ},
    {u"FW", FILE_GENERIC_WRITE},
    {u"FX", FILE_GENERIC_EXECUTE},
}};

/// ORs the values of a run of abbreviations; nothing when there is an unknown one.
template <std::size_t Size>
std::optional<std::uint32_t> ParseFlags(std::u16string_view text,
                                        const std::array<Flag, Size>& table) {
    std::uint32_t value = 0;
    while (!text.empty()) {
        const auto row = std::find_if(table.begin(), table.end(), [text](const Flag& flag) {
            return text.starts_with(flag.text);
        });
        if (row == table.end()) return std::nullopt;
        value |= row->value;
        text.remove_prefix(row->text.size());
    }
    return value;
}

std::optional<std::uint32_t> ParseRights(std::u16string_view text) {
    if (!text.starts_with(u"0x")) return ParseFlags(text, kRights);
    text.remove_prefix(2);
    if (text.empty() || text.size() > 8) return std::nullopt;
    std::uint32_t value = 0;
    for (const char16_t c : text) {
        constexpr std::u16string_view kDigits = u"0123456789abcdef";
        const std::size_t digit = kDigits.find(c >= u'A' && c <= u'F' ? char16_t(c + 32) : c);
        if (digit == std::u16string_view::npos) return std::nullopt;
        value = value << 4 | static_cast<std::uint32_t>(digit);
    }
    return value;
}

/// The text up to `end`, which is taken off too; nothing when there is no `end`.
std::optional<std::u16string_view> TakeUntil(std::u16string_view& text, char16_t end) {
    const std::size_t length = text.find(end);
    if (length == std::u16string_view::npos) return std::nullopt;
    const std::u16string_view taken = text.substr(0, length);
    text.remove_prefix(length + 1);
    return taken;
}

template <typename T>
void Append(std::vector<std::byte>& bytes, const T& value) {
    const auto* first = reinterpret_cast<const std::byte*>(&value);
    bytes.insert(bytes.end(), first, first + sizeof(T));
}

std::optional<UCHAR> ParseAceType(std::u16string_view text, bool audit) {
    if (audit) return text == u"AU" ? std::optional(SYSTEM_AUDIT_ACE_TYPE) : std::nullopt;
    if (text == u"A") return ACCESS_ALLOWED_ACE_TYPE;
    if (text == u"D") return ACCESS_DENIED_ACE_TYPE;
    return std::nullopt;
}

/// type;flags;rights;object;inherited object;account - the two objects are not offered and must be
/// empty.
bool AppendAce(std::u16string_view text, bool audit, std::vector<std::byte>& acl) {
    std::array<std::u16string_view, 5> fields;
    for (std::u16string_view& field : fields) {
        const auto taken = TakeUntil(text, u';');
        if (!taken) return false;
        field = *taken;
    }
    const auto type = ParseAceType(fields[0], audit);
    const auto flags = ParseFlags(fields[1], kAceFlags);
    const auto rights = ParseRights(fields[2]);
    const auto account = TakeSecurityId(text);
    const bool complete = type && flags && rights && account && text.empty() && fields[3].empty() &&
                          fields[4].empty();
    if (!complete) return false;
    const std::vector<std::byte> sid = EncodeSecurityId(*account);
    const std::size_t size = offsetof(ACCESS_ALLOWED_ACE, SidStart) + sid.size();
    Append(acl, ACE_HEADER{*type, static_cast<UCHAR>(*flags), static_cast<USHORT>(size)});
    Append(acl, *rights);
    acl.insert(acl.end(), sid.begin(), sid.end());
    return true;
}

/// Flags and entries of one list, up to the next part.
bool ParseList(std::u16string_view& text, bool audit, DescriptorParts& parts) {
    std::vector<std::byte>& acl = audit ? parts.sacl : parts.dacl;
    const std::size_t flagsEnd = std::min({text.find(u'('), text.find(u':'), text.size()});
    // A colon without entries before it belongs to the next part, whose letter precedes it.
    const bool nextPart = flagsEnd < text.size() && text[flagsEnd] == u':' && flagsEnd != 0;
    const std::u16string_view flagText = text.substr(0, nextPart ? flagsEnd - 1 : flagsEnd);
    text.remove_prefix(flagText.size());
    const int presentShift = audit ? kSaclPresentShift : 0;
    parts.control = static_cast<USHORT>(parts.control | SE_DACL_PRESENT << presentShift);
    if (flagText == u"NO_ACCESS_CONTROL") return !audit;  // present, but null: allows everything
    const auto flags = ParseFlags(flagText, kListFlags);
    if (!flags) return false;
    parts.control = static_cast<USHORT>(parts.control | *flags << (audit ? kSaclShift : 0));
    Append(acl, ACL{ACL_REVISION, 0, 0, 0, 0});
    USHORT count = 0;
    for (; text.starts_with(u'('); ++count) {
        text.remove_prefix(1);
        const auto entry = TakeUntil(text, u')');
        if (!entry || !AppendAce(*entry, audit, acl) || acl.size() > 0xFFFF) return false;
    }
    const ACL header{ACL_REVISION, 0, static_cast<USHORT>(acl.size()), count, 0};
    std::memcpy(acl.data(), &header, sizeof(header));
    return true;
}

bool ParseAccount(std::u16string_view& text, std::vector<std::byte>& account) {
    const auto id = TakeSecurityId(text);
    if (!id) return false;
    account = EncodeSecurityId(*id);
    return true;
}

/// The parts come in this order, each at most once.
bool ParseParts(std::u16string_view text, DescriptorParts& parts) {
    std::u16string_view allowed = u"OGDS";
    while (!text.empty()) {
        const char16_t letter = text.front();
        const std::size_t position = allowed.find(letter);
        if (position == std::u16string_view::npos || !text.substr(1).starts_with(u':')) {
            return false;
        }
        allowed.remove_prefix(position + 1);
        text.remove_prefix(2);
        bool parsed = false;
        switch (letter) {
            case u'O':
                parsed = ParseAccount(text, parts.owner);
                break;
            case u'G':
                parsed = ParseAccount(text, parts.group);
                break;
            default:
                parsed = ParseList(text, letter == u'S', parts);
                break;
        }
        if (!parsed) return false;
    }
    return true;
}

}  // namespace

NTSTATUS ParseSddl(std::u16string_view sddl, SecurityDescriptor& descriptor) {
    DescriptorParts parts;
    if (sddl.empty() || !ParseParts(sddl, parts)) return STATUS_INVALID_SECURITY_DESCR;
    descriptor = JoinDescriptor(parts);
    return STATUS_SUCCESS;
}

}  // namespace platform
