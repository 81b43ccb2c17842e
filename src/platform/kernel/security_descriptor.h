// Security descriptors and access lists, taken apart and put together.
#pragma once

#include "platform/kernel/caller_memory.h"
#include "platform/kernel/security.h"

#include <cstddef>
#include <optional>
#include <span>
#include <vector>

namespace platform {

using SecurityBytes = std::vector<std::byte>;

/// A descriptor's parts: identifiers and lists as their bytes, empty when absent. A list whose
/// present bit is set but that is empty is a null list.
struct DescriptorParts {
    SecurityBytes owner, group, sacl, dacl;
    USHORT control = SE_SELF_RELATIVE;
};

/// Copies a descriptor of either form out of the caller's memory, and checks it:
/// STATUS_UNKNOWN_REVISION, STATUS_INVALID_SID or STATUS_INVALID_ACL when it is none.
NTSTATUS CaptureDescriptor(const CallerMemory& memory, const void* given, DescriptorParts& parts);

/// The same for a self-relative descriptor whose parts must all lie within `bytes`;
/// STATUS_ACCESS_VIOLATION when they do not.
NTSTATUS ReadDescriptor(std::span<const std::byte> bytes, DescriptorParts& parts);

SecurityDescriptor JoinDescriptor(const DescriptorParts& parts);

/// One entry of a list, header and all.
using AceBytes = std::span<const std::byte>;

/// The entries of the list at the beginning of `acl`; nothing when it is no list, or does not fit.
std::optional<std::vector<AceBytes>> EntriesOf(std::span<const std::byte> acl);
/// A list with these entries, which are at most 65535 bytes together with its header.
SecurityBytes MakeAcl(const std::vector<SecurityBytes>& entries);

ACE_HEADER HeaderOfAce(AceBytes ace);
/// Whether the entry is a mask and one identifier behind its header, as ACCESS_ALLOWED_ACE is.
bool IsPlainAce(AceBytes ace);
/// Of a plain entry.
ACCESS_MASK MaskOfAce(AceBytes ace);

}  // namespace platform
