#include "records/security_change.h"

#include "records/acl_equal.h"

namespace zpregflt {

namespace {

using SidRoutine = decltype(RtlGetOwnerSecurityDescriptor);
using AclRoutine = decltype(RtlGetDaclSecurityDescriptor);

PSID SidOf(SidRoutine* routine, PSECURITY_DESCRIPTOR descriptor) {
    PSID sid = nullptr;
    BOOLEAN defaulted = FALSE;
    return NT_SUCCESS(routine(descriptor, &sid, &defaulted)) ? sid : nullptr;
}

/// False when a descriptor's part cannot be read.
bool CompareSids(SidRoutine* routine, PSECURITY_DESCRIPTOR before, PSECURITY_DESCRIPTOR after,
                 SecurityPart& part) {
    PSID const oldSid = SidOf(routine, before);
    PSID const newSid = SidOf(routine, after);
    if (oldSid == nullptr || newSid == nullptr) {
        return false;
    }
    if (!RtlEqualSid(oldSid, newSid)) {
        part = {oldSid, newSid, static_cast<USHORT>(RtlLengthSid(oldSid)),
                static_cast<USHORT>(RtlLengthSid(newSid))};
    }
    return true;
}

/// `acl` is null for a descriptor without a list, and for one whose list lets everyone in. False
/// when that cannot be read.
bool ReadAcl(AclRoutine* routine, PSECURITY_DESCRIPTOR descriptor, PACL& acl) {
    BOOLEAN present = FALSE;
    BOOLEAN defaulted = FALSE;
    acl = nullptr;
    if (!NT_SUCCESS(routine(descriptor, &present, &acl, &defaulted))) {
        return false;
    }
    if (!present) {
        acl = nullptr;
    }
    return true;
}

bool CompareAcls(AclRoutine* routine, PSECURITY_DESCRIPTOR before, PSECURITY_DESCRIPTOR after,
                 SecurityPart& part) {
    PACL oldAcl = nullptr;
    PACL newAcl = nullptr;
    if (!ReadAcl(routine, before, oldAcl)) {
        return false;
    }
    if (oldAcl == nullptr) {
        return true;
    }
    if (!ReadAcl(routine, after, newAcl)) {
        return false;
    }
    if (newAcl != nullptr && !AclEqual(oldAcl, newAcl)) {
        part = {oldAcl, newAcl, oldAcl->AclSize, newAcl->AclSize};
    }
    return true;
}

}  // namespace

SecurityChanges CompareSecurity(PSECURITY_DESCRIPTOR before, PSECURITY_DESCRIPTOR after,
                                SECURITY_INFORMATION requested) {
    SecurityChanges changes = {};
    if ((requested & OWNER_SECURITY_INFORMATION) != 0 &&
        !CompareSids(RtlGetOwnerSecurityDescriptor, before, after, changes.Parts[kOwnerPart])) {
        return changes;
    }
    if ((requested & GROUP_SECURITY_INFORMATION) != 0 &&
        !CompareSids(RtlGetGroupSecurityDescriptor, before, after, changes.Parts[kGroupPart])) {
        return changes;
    }
    if (CompareAcls(RtlGetDaclSecurityDescriptor, before, after, changes.Parts[kDaclPart])) {
        CompareAcls(RtlGetSaclSecurityDescriptor, before, after, changes.Parts[kSaclPart]);
    }
    return changes;
}

}  // namespace zpregflt
