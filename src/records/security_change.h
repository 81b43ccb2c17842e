// What differs between two states of an object's security.
#pragma once

#include <ntifs.h>

namespace zpregflt {

/// One part before and after: a SID or an access list, within the descriptor that it was found in.
/// Null when it did not change.
struct SecurityPart {
    const void* Old;
    const void* New;
    USHORT OldLength;  ///< bytes
    USHORT NewLength;
};

/// Indices of SecurityChanges.
enum SecurityPartIndex : ULONG { kOwnerPart, kGroupPart, kDaclPart, kSaclPart, kSecurityPartCount };

struct SecurityChanges {
    SecurityPart Parts[kSecurityPartCount];
};

/// Compares owner and group, if they are among those `requested`, and the access lists, whatever is
/// requested. A list that only one of the descriptors has did not change.
///
/// A part that cannot be read ends the comparison; what was found so far counts. An owner or group
/// that is absent cannot be read.
SecurityChanges CompareSecurity(PSECURITY_DESCRIPTOR before, PSECURITY_DESCRIPTOR after,
                                SECURITY_INFORMATION requested);

}  // namespace zpregflt
