#include "platform/kernel/security_descriptor.h"

#include "platform/kernel/security_id.h"

#include <cstring>

namespace platform {

namespace {

constexpr std::size_t kSidHeader = offsetof(SID, SubAuthority);
constexpr std::size_t kPlainAceHeader = offsetof(ACCESS_ALLOWED_ACE, SidStart);

/// Where the parts of a descriptor are in its owner's memory; null for those that are absent.
struct PartAddresses {
    USHORT control;
    const void* owner;
    const void* group;
    const void* sacl;
    const void* dacl;
};

template <typename Memory>
NTSTATUS FindParts(const Memory& memory, const void* given, PartAddresses& parts) {
    SECURITY_DESCRIPTOR_RELATIVE relative;
    if (!memory.Copy(&relative, given, sizeof(relative))) return STATUS_ACCESS_VIOLATION;
    if (relative.Revision != SECURITY_DESCRIPTOR_REVISION) return STATUS_UNKNOWN_REVISION;
    if ((relative.Control & SE_SELF_RELATIVE) != 0) {
        const auto at = [given](ULONG offset) -> const void* {
            return offset == 0 ? nullptr : static_cast<const std::byte*>(given) + offset;
        };
        parts = {relative.Control, at(relative.Owner), at(relative.Group), at(relative.Sacl),
                 at(relative.Dacl)};
        return STATUS_SUCCESS;
    }
    SECURITY_DESCRIPTOR absolute;
    if (!memory.Copy(&absolute, given, sizeof(absolute))) return STATUS_ACCESS_VIOLATION;
    parts = {absolute.Control, absolute.Owner, absolute.Group, absolute.Sacl, absolute.Dacl};
    return STATUS_SUCCESS;
}

template <typename Memory>
NTSTATUS CaptureSid(const Memory& memory, const void* given, SecurityBytes& sid) {
    if (given == nullptr) return STATUS_SUCCESS;
    std::byte header[kSidHeader];
    if (!memory.Copy(header, given, sizeof(header))) return STATUS_ACCESS_VIOLATION;
    const auto count = std::to_integer<std::size_t>(header[offsetof(SID, SubAuthorityCount)]);
    if (count > SID_MAX_SUB_AUTHORITIES) return STATUS_INVALID_SID;
    sid.resize(kSidHeader + count * sizeof(ULONG));
    if (!memory.Copy(sid.data(), given, sid.size())) return STATUS_ACCESS_VIOLATION;
    std::memcpy(sid.data(), header, sizeof(header));  // the caller may have changed the count
    return DecodeSecurityId(sid.data(), sid.size()) ? STATUS_SUCCESS : STATUS_INVALID_SID;
}

template <typename Memory>
NTSTATUS CaptureAcl(const Memory& memory, const void* given, SecurityBytes& acl) {
    if (given == nullptr) return STATUS_SUCCESS;
    ACL header;
    if (!memory.Copy(&header, given, sizeof(header))) return STATUS_ACCESS_VIOLATION;
    if (header.AclSize < sizeof(header)) return STATUS_INVALID_ACL;
    acl.resize(header.AclSize);
    if (!memory.Copy(acl.data(), given, acl.size())) return STATUS_ACCESS_VIOLATION;
    std::memcpy(acl.data(), &header, sizeof(header));
    return EntriesOf(acl) ? STATUS_SUCCESS : STATUS_INVALID_ACL;
}

ULONG Place(SecurityBytes& bytes, const SecurityBytes& part) {
    if (part.empty()) return 0;
    const auto offset = static_cast<ULONG>(bytes.size());
    bytes.insert(bytes.end(), part.begin(), part.end());
    return offset;
}

bool IsValidAce(AceBytes ace) {
    if (!IsPlainAce(ace)) return true;
    return ace.size() > kPlainAceHeader &&
           DecodeSecurityId(ace.data() + kPlainAceHeader, ace.size() - kPlainAceHeader);
}

/// `memory` copies from the descriptor's owner.
template <typename Memory>
NTSTATUS Capture(const Memory& memory, const void* given, DescriptorParts& parts) {
    PartAddresses found;
    NTSTATUS status = FindParts(memory, given, found);
    if (!NT_SUCCESS(status)) return status;
    parts.control = static_cast<USHORT>(found.control | SE_SELF_RELATIVE);
    status = CaptureSid(memory, found.owner, parts.owner);
    if (NT_SUCCESS(status)) status = CaptureSid(memory, found.group, parts.group);
    if (NT_SUCCESS(status) && (parts.control & SE_SACL_PRESENT) != 0) {
        status = CaptureAcl(memory, found.sacl, parts.sacl);
    }
    if (NT_SUCCESS(status) && (parts.control & SE_DACL_PRESENT) != 0) {
        status = CaptureAcl(memory, found.dacl, parts.dacl);
    }
    return status;
}

/// Memory that a descriptor must not lead out of.
struct BoundedMemory {
    std::span<const std::byte> bytes;

    bool Copy(void* to, const void* from, std::size_t size) const {
        const auto offset =
            reinterpret_cast<std::uintptr_t>(from) - reinterpret_cast<std::uintptr_t>(bytes.data());
        if (offset > bytes.size() || size > bytes.size() - offset) return false;
        std::memcpy(to, from, size);
        return true;
    }
};

}  // namespace

NTSTATUS CaptureDescriptor(const CallerMemory& memory, const void* given, DescriptorParts& parts) {
    return Capture(memory, given, parts);
}

NTSTATUS ReadDescriptor(std::span<const std::byte> bytes, DescriptorParts& parts) {
    return Capture(BoundedMemory{bytes}, bytes.data(), parts);
}

SecurityDescriptor JoinDescriptor(const DescriptorParts& parts) {
    SecurityBytes bytes(sizeof(SECURITY_DESCRIPTOR_RELATIVE));
    SECURITY_DESCRIPTOR_RELATIVE header{};
    header.Revision = SECURITY_DESCRIPTOR_REVISION;
    header.Control = parts.control;
    header.Sacl = Place(bytes, parts.sacl);
    header.Dacl = Place(bytes, parts.dacl);
    header.Owner = Place(bytes, parts.owner);
    header.Group = Place(bytes, parts.group);
    std::memcpy(bytes.data(), &header, sizeof(header));
    return {std::move(bytes)};
}

std::optional<std::vector<AceBytes>> EntriesOf(std::span<const std::byte> acl) {
    ACL header;
    if (acl.size() < sizeof(header)) return std::nullopt;
    std::memcpy(&header, acl.data(), sizeof(header));
    const bool known =
        header.AclRevision >= MIN_ACL_REVISION && header.AclRevision <= MAX_ACL_REVISION;
    if (!known || header.AclSize < sizeof(header) || header.AclSize > acl.size()) {
        return std::nullopt;
    }
    std::span<const std::byte> rest = acl.subspan(sizeof(header), header.AclSize - sizeof(header));
    std::vector<AceBytes> entries;
    for (USHORT index = 0; index < header.AceCount; ++index) {
        if (rest.size() < sizeof(ACE_HEADER)) return std::nullopt;
        const USHORT size = HeaderOfAce(rest).AceSize;
        const bool fits = size >= sizeof(ACE_HEADER) && size % 4 == 0 && size <= rest.size();
        if (!fits || !IsValidAce(rest.first(size))) return std::nullopt;
        entries.push_back(rest.first(size));
        rest = rest.subspan(size);
    }
    return entries;
}

SecurityBytes MakeAcl(const std::vector<SecurityBytes>& entries) {
    SecurityBytes acl(sizeof(ACL));
    UCHAR revision = ACL_REVISION;
    for (const SecurityBytes& entry : entries) {
        if (!IsPlainAce(entry)) revision = MAX_ACL_REVISION;
        acl.insert(acl.end(), entry.begin(), entry.end());
    }
    const ACL header{revision, 0, static_cast<USHORT>(acl.size()),
                     static_cast<USHORT>(entries.size()), 0};
    std::memcpy(acl.data(), &header, sizeof(header));
    return acl;
}

ACE_HEADER HeaderOfAce(AceBytes ace) {
    ACE_HEADER header;
    std::memcpy(&header, ace.data(), sizeof(header));
    return header;
}

bool IsPlainAce(AceBytes ace) {
    return HeaderOfAce(ace).AceType <= SYSTEM_AUDIT_ACE_TYPE;
}

ACCESS_MASK MaskOfAce(AceBytes ace) {
    ACCESS_MASK mask;
    std::memcpy(&mask, ace.data() + offsetof(ACCESS_ALLOWED_ACE, Mask), sizeof(mask));
    return mask;
}

}  // namespace platform
