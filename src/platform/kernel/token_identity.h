// Who a token stands for: the accounts that access lists name, and what its holder's objects get.
#pragma once

#include "platform/kernel/security_descriptor.h"
#include "platform/kernel/security_id.h"

#include <vector>

namespace platform {

struct Token;

struct Identity {
    std::vector<SecurityId> groups;       ///< the user among them
    std::vector<SecurityId> restricting;  ///< empty for a token that is not restricted
    /// Has the privileges to back up and restore, to reach audit lists, and to give objects away.
    bool isPrivileged;
    // For what its holder creates: owner and group, and the list where none is inherited.
    SecurityBytes owner;
    SecurityBytes group;
    SecurityBytes defaultDacl;
};

const Identity& IdentityOf(const Token& token);

/// STATUS_PRIVILEGE_NOT_HELD for a user caller whose process is not privileged.
NTSTATUS RequirePrivilege(const CallerMemory& memory);

/// Whether the token's holder may make this identifier the owner of an object.
bool MayAssignOwner(const Identity& identity, const SecurityBytes& sid);

}  // namespace platform
