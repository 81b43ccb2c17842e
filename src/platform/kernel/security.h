// Security identifiers, descriptors and access checks.
#pragma once

#include <ntifs.h>

#include <cstddef>
#include <string>
#include <string_view>
#include <vector>

namespace platform {

struct Token;
struct GenericMapping;

/// A self-relative security descriptor, owned; empty when there is none.
struct SecurityDescriptor {
    std::vector<std::byte> bytes;
    bool Empty() const { return bytes.empty(); }
};

/// Parses the string form (owner, group, DACL and SACL; the account and right abbreviations).
/// STATUS_INVALID_SECURITY_DESCR names nothing: the caller knows the string.
NTSTATUS ParseSddl(std::u16string_view sddl, SecurityDescriptor& descriptor);

/// The mask with its generic rights expanded.
ACCESS_MASK MapGeneric(ACCESS_MASK mask, const GenericMapping& mapping);

/// Everything that the descriptor allows to the token's holder. STATUS_INVALID_SECURITY_DESCR when
/// the descriptor is damaged.
NTSTATUS FindAllowedAccess(const SecurityDescriptor& descriptor, const Token& token,
                           const GenericMapping& mapping, ACCESS_MASK* allowed);
/// What somebody to whom `allowed` is allowed gets who asks for `desired`: as AccessCheck.
NTSTATUS GrantAccess(ACCESS_MASK allowed, ACCESS_MASK desired, const GenericMapping& mapping,
                     ACCESS_MASK* granted);

/// Grants what the token may have: STATUS_ACCESS_DENIED unless all of `desired` is allowed.
/// MAXIMUM_ALLOWED grants everything that the descriptor allows. An empty descriptor allows all.
NTSTATUS AccessCheck(const SecurityDescriptor& descriptor, const Token& token, ACCESS_MASK desired,
                     const GenericMapping& mapping, ACCESS_MASK* granted);

}  // namespace platform
