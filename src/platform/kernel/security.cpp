// Access checks.
#include "platform/kernel/security.h"

#include "platform/kernel/object.h"
#include "platform/kernel/process.h"
#include "platform/kernel/security_descriptor.h"
#include "platform/kernel/token_identity.h"

#include <algorithm>
#include <cstring>
#include <optional>

namespace platform {

namespace {

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

template <typename T>
bool Read(const std::vector<std::byte>& bytes, std::size_t offset, T& value) {
    if (offset > bytes.size() || bytes.size() - offset < sizeof(T)) return false;
    std::memcpy(&value, bytes.data() + offset, sizeof(T));
    return true;
}

/// Entries that concern the object itself; false when the list is damaged.
bool ReadEntries(std::span<const std::byte> acl, const GenericMapping& mapping,
                 std::vector<Ace>& entries) {
    const auto all = EntriesOf(acl);
    if (!all) return false;
    for (const AceBytes ace : *all) {
        constexpr std::size_t kSidOffset = offsetof(ACCESS_ALLOWED_ACE, SidStart);
        const ACE_HEADER header = HeaderOfAce(ace);
        const bool decides =
            header.AceType == ACCESS_ALLOWED_ACE_TYPE || header.AceType == ACCESS_DENIED_ACE_TYPE;
        if (!decides || (header.AceFlags & INHERIT_ONLY_ACE) != 0) continue;
        const auto account = DecodeSecurityId(ace.data() + kSidOffset, ace.size() - kSidOffset);
        entries.push_back({header.AceType == ACCESS_DENIED_ACE_TYPE,
                           MapGeneric(MaskOfAce(ace), mapping), account.value()});
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
    if (list.allowsAll) return true;
    const std::span<const std::byte> all(bytes);
    return header.Dacl < all.size() && ReadEntries(all.subspan(header.Dacl), mapping, list.entries);
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

ACCESS_MASK MapGeneric(ACCESS_MASK mask, const GenericMapping& mapping) {
    constexpr ACCESS_MASK kGeneric = GENERIC_READ | GENERIC_WRITE | GENERIC_EXECUTE | GENERIC_ALL;
    ACCESS_MASK mapped = mask & ~kGeneric;
    if ((mask & GENERIC_READ) != 0) mapped |= mapping.read;
    if ((mask & GENERIC_WRITE) != 0) mapped |= mapping.write;
    if ((mask & GENERIC_EXECUTE) != 0) mapped |= mapping.execute;
    if ((mask & GENERIC_ALL) != 0) mapped |= mapping.all;
    return mapped;
}

NTSTATUS FindAllowedAccess(const SecurityDescriptor& descriptor, const Token& token,
                           const GenericMapping& mapping, ACCESS_MASK* allowed) {
    AccessList list;
    list.allowsAll = descriptor.Empty();
    if (!list.allowsAll && !ReadAccessList(descriptor.bytes, mapping, list)) {
        return STATUS_INVALID_SECURITY_DESCR;
    }
    const Identity& identity = IdentityOf(token);
    *allowed = AllowedTo(identity.groups, list);
    if (!identity.restricting.empty()) *allowed &= AllowedTo(identity.restricting, list);
    if (identity.isPrivileged) *allowed |= ACCESS_SYSTEM_SECURITY;
    return STATUS_SUCCESS;
}

NTSTATUS GrantAccess(ACCESS_MASK allowed, ACCESS_MASK desired, const GenericMapping& mapping,
                     ACCESS_MASK* granted) {
    const bool maximum = (desired & MAXIMUM_ALLOWED) != 0;
    const ACCESS_MASK wanted = MapGeneric(desired & ~MAXIMUM_ALLOWED, mapping);
    if ((wanted & ~allowed) != 0) return STATUS_ACCESS_DENIED;
    *granted = wanted | (maximum ? allowed & mapping.all : 0);
    if (maximum && *granted == 0) return STATUS_ACCESS_DENIED;
    return STATUS_SUCCESS;
}

NTSTATUS AccessCheck(const SecurityDescriptor& descriptor, const Token& token, ACCESS_MASK desired,
                     const GenericMapping& mapping, ACCESS_MASK* granted) {
    ACCESS_MASK allowed = 0;
    const NTSTATUS status = FindAllowedAccess(descriptor, token, mapping, &allowed);
    return NT_SUCCESS(status) ? GrantAccess(allowed, desired, mapping, granted) : status;
}

}  // namespace platform
