// What the kernel exports for looking at security descriptors, in place.
#include "platform/kernel/fault_injection.h"
#include "platform/kernel/verifier.h"

#include <ntifs.h>

#include <cstring>

using platform::FailThisCall;
using platform::RequireIrql;

namespace {

/// The parts of a descriptor of either form; null for those that are absent.
struct Parts {
    USHORT control;
    void* owner;
    void* group;
    PACL sacl;
    PACL dacl;
};

NTSTATUS FindParts(PSECURITY_DESCRIPTOR descriptor, Parts& parts) {
    const auto& relative = *static_cast<const SECURITY_DESCRIPTOR_RELATIVE*>(descriptor);
    if (relative.Revision != SECURITY_DESCRIPTOR_REVISION) return STATUS_UNKNOWN_REVISION;
    if ((relative.Control & SE_SELF_RELATIVE) == 0) {
        const auto& absolute = *static_cast<const SECURITY_DESCRIPTOR*>(descriptor);
        parts = {absolute.Control, absolute.Owner, absolute.Group, absolute.Sacl, absolute.Dacl};
        return STATUS_SUCCESS;
    }
    const auto at = [descriptor](ULONG offset) -> void* {
        return offset == 0 ? nullptr : static_cast<std::byte*>(descriptor) + offset;
    };
    parts = {relative.Control, at(relative.Owner), at(relative.Group),
             static_cast<PACL>(at(relative.Sacl)), static_cast<PACL>(at(relative.Dacl))};
    return STATUS_SUCCESS;
}

NTSTATUS Find(const char* routine, PSECURITY_DESCRIPTOR descriptor, Parts& parts) {
    RequireIrql(routine, APC_LEVEL);
    if (const auto fault = FailThisCall(routine)) return *fault;
    return FindParts(descriptor, parts);
}

BOOLEAN IsSet(USHORT control, USHORT bit) {
    return (control & bit) != 0 ? TRUE : FALSE;
}

void GiveList(USHORT control, USHORT presentBit, USHORT defaultedBit, PACL list, PBOOLEAN present,
              PACL* given, PBOOLEAN defaulted) {
    *present = IsSet(control, presentBit);
    if (*present == FALSE) return;
    *given = list;
    *defaulted = IsSet(control, defaultedBit);
}

}  // namespace

extern "C" {

NTSTATUS NTAPI RtlGetOwnerSecurityDescriptor(PSECURITY_DESCRIPTOR securityDescriptor, PSID* owner,
                                             PBOOLEAN ownerDefaulted) {
    Parts parts{};
    const NTSTATUS status = Find("RtlGetOwnerSecurityDescriptor", securityDescriptor, parts);
    if (!NT_SUCCESS(status)) return status;
    *owner = parts.owner;
    *ownerDefaulted = IsSet(parts.control, SE_OWNER_DEFAULTED);
    return STATUS_SUCCESS;
}

NTSTATUS NTAPI RtlGetGroupSecurityDescriptor(PSECURITY_DESCRIPTOR securityDescriptor, PSID* group,
                                             PBOOLEAN groupDefaulted) {
    Parts parts{};
    const NTSTATUS status = Find("RtlGetGroupSecurityDescriptor", securityDescriptor, parts);
    if (!NT_SUCCESS(status)) return status;
    *group = parts.group;
    *groupDefaulted = IsSet(parts.control, SE_GROUP_DEFAULTED);
    return STATUS_SUCCESS;
}

NTSTATUS NTAPI RtlGetDaclSecurityDescriptor(PSECURITY_DESCRIPTOR securityDescriptor,
                                            PBOOLEAN daclPresent, PACL* dacl,
                                            PBOOLEAN daclDefaulted) {
    Parts parts{};
    const NTSTATUS status = Find("RtlGetDaclSecurityDescriptor", securityDescriptor, parts);
    if (!NT_SUCCESS(status)) return status;
    GiveList(parts.control, SE_DACL_PRESENT, SE_DACL_DEFAULTED, parts.dacl, daclPresent, dacl,
             daclDefaulted);
    return STATUS_SUCCESS;
}

NTSTATUS NTAPI RtlGetSaclSecurityDescriptor(PSECURITY_DESCRIPTOR securityDescriptor,
                                            PBOOLEAN saclPresent, PACL* sacl,
                                            PBOOLEAN saclDefaulted) {
    Parts parts{};
    const NTSTATUS status = Find("RtlGetSaclSecurityDescriptor", securityDescriptor, parts);
    if (!NT_SUCCESS(status)) return status;
    GiveList(parts.control, SE_SACL_PRESENT, SE_SACL_DEFAULTED, parts.sacl, saclPresent, sacl,
             saclDefaulted);
    return STATUS_SUCCESS;
}

NTSTATUS NTAPI RtlGetAce(PACL acl, ULONG aceIndex, PVOID* ace) {
    RequireIrql("RtlGetAce", APC_LEVEL);
    if (const auto fault = FailThisCall("RtlGetAce")) return *fault;
    const bool known = acl->AclRevision >= MIN_ACL_REVISION && acl->AclRevision <= MAX_ACL_REVISION;
    if (!known || aceIndex >= acl->AceCount) return STATUS_INVALID_PARAMETER;
    auto* const end = reinterpret_cast<UCHAR*>(acl) + acl->AclSize;
    auto* entry = reinterpret_cast<UCHAR*>(acl + 1);
    for (ULONG index = 0; index < aceIndex && entry < end; ++index) {
        entry += reinterpret_cast<PACE_HEADER>(entry)->AceSize;
    }
    if (entry >= end) return STATUS_INVALID_PARAMETER;
    *ace = entry;
    return STATUS_SUCCESS;
}

ULONG NTAPI RtlLengthSid(PSID sid) {
    const UCHAR count = static_cast<const SID*>(sid)->SubAuthorityCount;
    return static_cast<ULONG>(offsetof(SID, SubAuthority) + count * sizeof(ULONG));
}

BOOLEAN NTAPI RtlEqualSid(PSID first, PSID second) {
    const auto& one = *static_cast<const SID*>(first);
    const auto& other = *static_cast<const SID*>(second);
    const bool equal = one.Revision == other.Revision &&
                       one.SubAuthorityCount == other.SubAuthorityCount &&
                       std::memcmp(&one, &other, RtlLengthSid(first)) == 0;
    return equal ? TRUE : FALSE;
}

}  // extern "C"
