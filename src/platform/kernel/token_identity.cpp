#include "platform/kernel/token_identity.h"

#include "platform/kernel/process.h"

#include <algorithm>
#include <cstring>
#include <string_view>

namespace platform {

namespace {

constexpr std::u16string_view kAdministrator = u"S-1-5-21-1000-1000-1000-500";
constexpr std::u16string_view kUser = u"S-1-5-21-1000-1000-1000-1001";
constexpr std::u16string_view kDomainUsers = u"S-1-5-21-1000-1000-1000-513";

SecurityId Account(std::u16string_view text) {
    return TakeSecurityId(text).value();
}

/// Everything for the owner and the system.
SecurityBytes DefaultDacl(const SecurityBytes& owner) {
    std::vector<SecurityBytes> entries;
    for (const SecurityBytes& sid : {owner, EncodeSecurityId(Account(u"SY"))}) {
        constexpr std::size_t kSidOffset = offsetof(ACCESS_ALLOWED_ACE, SidStart);
        SecurityBytes entry(kSidOffset + sid.size());
        const ACCESS_ALLOWED_ACE header{
            {ACCESS_ALLOWED_ACE_TYPE, 0, static_cast<USHORT>(entry.size())}, GENERIC_ALL, 0};
        std::memcpy(entry.data(), &header, kSidOffset);
        std::memcpy(entry.data() + kSidOffset, sid.data(), sid.size());
        entries.push_back(std::move(entry));
    }
    return MakeAcl(entries);
}

Identity MakeIdentity(std::vector<SecurityId> groups, std::vector<SecurityId> restricting,
                      bool isPrivileged, std::u16string_view owner, std::u16string_view group) {
    const SecurityBytes ownerSid = EncodeSecurityId(Account(owner));
    return {std::move(groups), std::move(restricting),           isPrivileged,
            ownerSid,          EncodeSecurityId(Account(group)), DefaultDacl(ownerSid)};
}

}  // namespace

const Identity& IdentityOf(const Token& token) {
    static const std::vector<SecurityId> userGroups = {Account(kUser), Account(u"WD"),
                                                       Account(u"AU"), Account(u"BU")};
    static const Identity system = MakeIdentity(
        {Account(u"SY"), Account(u"BA"), Account(u"WD"), Account(u"AU")}, {}, true, u"BA", u"SY");
    static const Identity administrators = MakeIdentity(
        {Account(kAdministrator), Account(u"BA"), Account(u"WD"), Account(u"AU"), Account(u"BU")},
        {}, true, u"BA", kDomainUsers);
    static const Identity users = MakeIdentity(userGroups, {}, false, kUser, kDomainUsers);
    static const Identity restricted =
        MakeIdentity(userGroups, {Account(u"RC")}, false, kUser, kDomainUsers);
    switch (token.account) {
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

NTSTATUS RequirePrivilege(const CallerMemory& memory) {
    const bool holds =
        memory.Mode() == KernelMode || IdentityOf(CurrentProcess().GetToken()).isPrivileged;
    return holds ? STATUS_SUCCESS : STATUS_PRIVILEGE_NOT_HELD;
}

bool MayAssignOwner(const Identity& identity, const SecurityBytes& sid) {
    return identity.isPrivileged || sid == identity.owner;
}

}  // namespace platform
