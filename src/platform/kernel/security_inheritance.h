// What security a new object gets from its container, its creator and what the creator asks for.
#pragma once

#include "platform/kernel/token_identity.h"

namespace platform {

/// The descriptor of a new container. An owner, a group or a list that `given` (which may be null)
/// has comes from there; otherwise owner and group are the creator's, and the lists hold what
/// `container` lets its containers inherit, or else the creator's default. CREATOR OWNER and
/// CREATOR GROUP in what is inherited become the owner and the group.
///
/// STATUS_INVALID_OWNER, STATUS_PRIVILEGE_NOT_HELD (an audit list is asked for),
/// STATUS_BAD_INHERITANCE_ACL (a list would be too long).
NTSTATUS MakeDescriptor(const DescriptorParts& container, const DescriptorParts* given,
                        const Identity& creator, const GenericMapping& mapping,
                        DescriptorParts& made);

/// The list with generic rights, in entries for the object itself, mapped to its type's.
SecurityBytes MapAcl(const SecurityBytes& acl, const GenericMapping& mapping);

}  // namespace platform
