// Access checks.
#include "platform/kernel/security.h"

#include "platform/kernel/object.h"
#include "platform/kernel/process.h"
#include "platform/kernel/security_id.h"

#include <algorithm>
#include <cstring>
#include <optional>

namespace platform {

namespace {

constexpr UCHAR kInheritOnlyAce = 0x08;

/// What an access check sees of a token. `restricting` is empty for a token that is not restricted.
struct Identity {
    std::vector<SecurityId> groups;  ///< the user among them
    std::vector<SecurityId> restricting;
    bool mayReachAuditList;  ///< has the privilege that ACCESS_SYSTEM_SECURITY needs
};

SecurityId Account(std::u16string_view text) {
    return TakeSecurityId(text).value();
}

const Identity& IdentityOf(Token::Account account) {
    static const SecurityId user = Account(u"S-1-5-21-1000-1000-1000-1001");
    static const SecurityId administrator = Account(u"S-1-5-21-1000-1000-1000-500");
    static const Identity system = {
        {Account(u"SY"), Account(u"BA"), Account(u"WD"), Account(u"AU")}, {}, true};
    static const Identity administrators = {
        {administrator, Account(u"BA"), Account(u"WD"), Account(u"AU"), Account(u"BU")}, {}, true};
    static const Identity users = {
        {user, Account(u"WD"), Account(u"AU"), Account(u"BU")}, {}, false};
    static const Identity restricted = {users.groups, {Account(u"RC")}, false};
    switch (account) {
        case Token::Account::kLocalSystem:
            return system;
        case Token::Account::kAdministrator:
            return administrators;
        case Token::Account::kUser:
            return users;
        case Token::Account::kRestricted:
            break;
    }
    return restricted;
}

struct Ace {
    bool deny;
    ACCESS_MASK mask;
    SecurityId account;
};

/// The part of a descriptor that access checks read.
struct AccessList {
    std::optional<SecurityId> owner;
    bool allowsAll = false;  ///< there is no list
    std::vector<Ace> entries;
};

ACCESS_MASK MapGeneric(ACCESS_MASK mask, const GenericMapping& mapping) {
    constexpr ACCESS_MASK kGeneric = GENERIC_READ | GENERIC_WRITE | GENERIC_EXECUTE | GENERIC_ALL;
    ACCESS_MASK mapped = mask & ~kGeneric;
    if ((mask & GENERIC_READ) != 0) mapped |= mapping.read;
    if ((mask & GENERIC_WRITE) != 0) mapped |= mapping.write;
    if ((mask & GENERIC_EXECUTE) != 0) mapped |= mapping.execute;
    if ((mask & GENERIC_ALL) != 0) mapped |= mapping.all;
    return mapped;
}

template <typename T>
bool Read(const std::vector<std::byte>& bytes, std::size_t offset, T& value) {
    if (offset > bytes.size() || bytes.size() - offset < sizeof(T)) return false;
    std::memcpy(&value, bytes.data() + offset, sizeof(T));
    return true;
}

/// Entries that concern the object itself; false when the list is damaged.
bool ReadEntries(const std::vector<std::byte>& bytes, std::size_t offset,
                 const GenericMapping& mapping, std::vector<Ace>& entries) {
    ACL list;
    if (!Read(bytes, offset, list) || bytes.size() - offset < list.AclSize) return false;
    std::size_t position = offset + sizeof(ACL);
    const std::size_t end = offset + list.AclSize;
    for (USHORT index = 0; index < list.AceCount; ++index) {
        ACCESS_ALLOWED_ACE ace;
        if (!Read(bytes, position, ace) || position + ace.Header.AceSize > end) return false;
        constexpr std::size_t kSidOffset = offsetof(ACCESS_ALLOWED_ACE, SidStart);
        if (ace.Header.AceSize < kSidOffset) return false;
        const auto account =
            DecodeSecurityId(bytes.data() + position + kSidOffset, ace.Header.AceSize - kSidOffset);
        if (!account) return false;
        const bool known = ace.Header.AceType == ACCESS_ALLOWED_ACE_TYPE ||
                           ace.Header.AceType == ACCESS_DENIED_ACE_TYPE;
        if (known && (ace.Header.AceFlags & kInheritOnlyAce) == 0) {
            entries.push_back({ace.Header.AceType == ACCESS_DENIED_ACE_TYPE,
                               MapGeneric(ace.Mask, mapping), *account});
        }
        position += ace.Header.AceSize;
    }
    return true;
}

bool ReadAccessList(const std::vector<std::byte>& bytes, const GenericMapping& mapping,
                    AccessList& list) {
    SECURITY_DESCRIPTOR_RELATIVE header;
    if (!Read(bytes, 0, header)) return false;
    if (header.Owner != 0) {
        if (header.Owner >= bytes.size()) return false;
        list.owner = DecodeSecurityId(bytes.data() + header.Owner, bytes.size() - header.Owner);
    }
    list.allowsAll = (header.Control & SE_DACL_PRESENT) == 0 || header.Dacl == 0;
    return list.allowsAll || ReadEntries(bytes, header.Dacl, mapping, list.entries);
}

/// Everything that the list allows to somebody who is all of `accounts`.
ACCESS_MASK AllowedTo(const std::vector<SecurityId>& accounts, const AccessList& list) {
    constexpr ACCESS_MASK kByList = 0x001FFFFF;
    if (list.allowsAll) return kByList;
    const auto among = [&accounts](const SecurityId& id) {
        return std::find(accounts.begin(), accounts.end(), id) != accounts.end();
    };
    ACCESS_MASK allowed = list.owner && among(*list.owner) ? READ_CONTROL | WRITE_DAC : 0;
    ACCESS_MASK denied = 0;
    for (const Ace& ace : list.entries) {
        if (!among(ace.account)) continue;
        (ace.deny ? denied : allowed) |= ace.mask & ~(ace.deny ? allowed : denied);
    }
    return allowed & kByList;
}

}  // namespace

NTSTATUS AccessCheck(const SecurityDescriptor& descriptor, const Token& token, ACCESS_MASK desired,
                     const GenericMapping& mapping, ACCESS_MASK* granted) {
    AccessList list;
    list.allowsAll = descriptor.Empty();
    if (!list.allowsAll && !ReadAccessList(descriptor.bytes, mapping, list)) {
        return STATUS_INVALID_SECURITY_DESCR;
    }
    const Identity& identity = IdentityOf(token.account);
    ACCESS_MASK allowed = AllowedTo(identity.groups, list);
    if (!identity.restricting.empty()) allowed &= AllowedTo(identity.restricting, list);
    if (identity.mayReachAuditList) allowed |= ACCESS_SYSTEM_SECURITY;

    const bool maximum = (desired & MAXIMUM_ALLOWED) != 0;
    const ACCESS_MASK wanted = MapGeneric(desired & ~MAXIMUM_ALLOWED, mapping);
    if ((wanted & ~allowed) != 0) return STATUS_ACCESS_DENIED;
    *granted = wanted | (maximum ? allowed & mapping.all : 0);
    if (maximum && *granted == 0) return STATUS_ACCESS_DENIED;
    return STATUS_SUCCESS;
}

}  // namespace platform
