// Querying and setting the security of keys.
#include "platform/kernel/key_object.h"
#include "platform/kernel/key_security.h"
#include "platform/kernel/registry_callbacks.h"
#include "platform/kernel/security_inheritance.h"

#include <mutex>
#include <shared_mutex>

namespace platform {

namespace {

constexpr SECURITY_INFORMATION kOwnerAndGroup =
    OWNER_SECURITY_INFORMATION | GROUP_SECURITY_INFORMATION;

/// The access that a handle needs for `what`: `forDacl` for the access list, `forOwner` for owner
/// and group, and always ACCESS_SYSTEM_SECURITY for the audit list.
ACCESS_MASK AccessFor(SECURITY_INFORMATION what, ACCESS_MASK forOwner, ACCESS_MASK forDacl) {
    ACCESS_MASK access = 0;
    if ((what & kOwnerAndGroup) != 0) access |= forOwner;
    if ((what & DACL_SECURITY_INFORMATION) != 0) access |= forDacl;
    if ((what & SACL_SECURITY_INFORMATION) != 0) access |= ACCESS_SYSTEM_SECURITY;
    return access;
}

constexpr USHORT kDaclControl = SE_DACL_PRESENT | SE_DACL_DEFAULTED | SE_DACL_AUTO_INHERIT_REQ |
                                SE_DACL_AUTO_INHERITED | SE_DACL_PROTECTED;
constexpr USHORT kSaclControl = SE_SACL_PRESENT | SE_SACL_DEFAULTED | SE_SACL_AUTO_INHERIT_REQ |
                                SE_SACL_AUTO_INHERITED | SE_SACL_PROTECTED;

DescriptorParts Select(const DescriptorParts& parts, SECURITY_INFORMATION what) {
    DescriptorParts selected;
    if ((what & OWNER_SECURITY_INFORMATION) != 0) {
        selected.owner = parts.owner;
        selected.control |= parts.control & SE_OWNER_DEFAULTED;
    }
    if ((what & GROUP_SECURITY_INFORMATION) != 0) {
        selected.group = parts.group;
        selected.control |= parts.control & SE_GROUP_DEFAULTED;
    }
    if ((what & DACL_SECURITY_INFORMATION) != 0) {
        selected.dacl = parts.dacl;
        selected.control |= parts.control & kDaclControl;
    }
    if ((what & SACL_SECURITY_INFORMATION) != 0) {
        selected.sacl = parts.sacl;
        selected.control |= parts.control & kSaclControl;
    }
    return selected;
}

/// The control bits that a list keeps when it is set: that it was inherited counts only when the
/// caller asks for it.
USHORT ControlToSet(USHORT given, USHORT kept, USHORT requested, USHORT inherited) {
    const bool keepsInherited = (given & requested) != 0;
    return static_cast<USHORT>(given & (kept | (keepsInherited ? inherited : 0)));
}

void ReplaceParts(SECURITY_INFORMATION what, const DescriptorParts& given, DescriptorParts& parts) {
    const GenericMapping& mapping = kKeyType.mapping;
    if ((what & OWNER_SECURITY_INFORMATION) != 0) parts.owner = given.owner;
    if ((what & GROUP_SECURITY_INFORMATION) != 0) parts.group = given.group;
    if ((what & DACL_SECURITY_INFORMATION) != 0) {
        parts.dacl = MapAcl(given.dacl, mapping);
        parts.control = static_cast<USHORT>(parts.control & ~kDaclControl) |
                        ControlToSet(given.control, SE_DACL_PRESENT | SE_DACL_PROTECTED,
                                     SE_DACL_AUTO_INHERIT_REQ, SE_DACL_AUTO_INHERITED);
    }
    if ((what & SACL_SECURITY_INFORMATION) != 0) {
        parts.sacl = MapAcl(given.sacl, mapping);
        parts.control = static_cast<USHORT>(parts.control & ~kSaclControl) |
                        ControlToSet(given.control, SE_SACL_PRESENT | SE_SACL_PROTECTED,
                                     SE_SACL_AUTO_INHERIT_REQ, SE_SACL_AUTO_INHERITED);
    }
}

/// STATUS_INVALID_SECURITY_DESCR when a part that is to be set is missing.
NTSTATUS CaptureForSet(const CallerMemory& memory, SECURITY_INFORMATION what, const void* given,
                       DescriptorParts& captured) {
    if (given == nullptr) return STATUS_ACCESS_VIOLATION;
    const NTSTATUS status = CaptureDescriptor(memory, given, captured);
    if (!NT_SUCCESS(status)) return status;
    const bool lacksOwner = (what & OWNER_SECURITY_INFORMATION) != 0 && captured.owner.empty();
    const bool lacksGroup = (what & GROUP_SECURITY_INFORMATION) != 0 && captured.group.empty();
    return lacksOwner || lacksGroup ? STATUS_INVALID_SECURITY_DESCR : STATUS_SUCCESS;
}

NTSTATUS ReplaceSecurity(KeyNode& key, SECURITY_INFORMATION what, const DescriptorParts& given) {
    const bool setsOwner = (what & OWNER_SECURITY_INFORMATION) != 0;
    const Identity& setter = IdentityOf(CurrentProcess().GetToken());
    if (setsOwner && !MayAssignOwner(setter, given.owner)) return STATUS_INVALID_OWNER;
    const std::unique_lock guard(RegistryTree().lock);
    if (key.IsDeleted()) return STATUS_KEY_DELETED;
    DescriptorParts parts = key.Security()->Parts();
    ReplaceParts(what, given, parts);
    key.SetSecurity(std::make_shared<const KeySecurity>(std::move(parts)));
    return STATUS_SUCCESS;
}

/// Reads the descriptor into the buffer of `length` bytes and tells in `length` how many it takes.
NTSTATUS ReadSecurity(const CallerMemory& memory, const KeyNode& key, SECURITY_INFORMATION what,
                      PSECURITY_DESCRIPTOR buffer, ULONG& length) {
    KeySecurityRef security;
    {
        const std::shared_lock guard(RegistryTree().lock);
        if (key.IsDeleted()) return STATUS_KEY_DELETED;
        security = key.Security();
    }
    const SecurityBytes bytes = JoinDescriptor(Select(security->Parts(), what)).bytes;
    const ULONG room = std::exchange(length, static_cast<ULONG>(bytes.size()));
    if (room < bytes.size()) return STATUS_BUFFER_TOO_SMALL;
    return memory.Copy(buffer, bytes.data(), bytes.size()) ? STATUS_SUCCESS
                                                           : STATUS_ACCESS_VIOLATION;
}

bool HandleLacks(const CallerMemory& memory, ACCESS_MASK granted, ACCESS_MASK needed) {
    return memory.Mode() != KernelMode && (needed & ~granted) != 0;
}

}  // namespace

NTSTATUS QueryKeySecurity(const CallerMemory& memory, KeyObject& key, ACCESS_MASK granted,
                          SECURITY_INFORMATION what, PSECURITY_DESCRIPTOR buffer, ULONG length,
                          PULONG lengthNeeded) {
    const ACCESS_MASK needed = AccessFor(what, READ_CONTROL, READ_CONTROL);
    if (HandleLacks(memory, granted, needed)) return STATUS_ACCESS_DENIED;
    REG_QUERY_KEY_SECURITY_INFORMATION call{};
    call.SecurityInformation = &what;
    call.SecurityDescriptor = buffer;
    call.Length = &length;
    const NTSTATUS status =
        NotifyAround(RegNtPreQueryKeySecurity, RegNtPostQueryKeySecurity, key, call,
                     [&] { return ReadSecurity(memory, key.Node(), what, buffer, length); });
    const bool tellsLength = NT_SUCCESS(status) || status == STATUS_BUFFER_TOO_SMALL;
    if (tellsLength && !memory.Store(lengthNeeded, length)) return STATUS_ACCESS_VIOLATION;
    return status;
}

NTSTATUS SetKeySecurity(const CallerMemory& memory, KeyObject& key, ACCESS_MASK granted,
                        SECURITY_INFORMATION what, PSECURITY_DESCRIPTOR given) {
    const ACCESS_MASK needed = AccessFor(what, WRITE_OWNER, WRITE_DAC);
    if (HandleLacks(memory, granted, needed)) return STATUS_ACCESS_DENIED;
    DescriptorParts captured;
    const NTSTATUS status = CaptureForSet(memory, what, given, captured);
    if (!NT_SUCCESS(status)) return status;
    SecurityDescriptor descriptor = JoinDescriptor(captured);
    REG_SET_KEY_SECURITY_INFORMATION call{};
    call.SecurityInformation = &what;
    call.SecurityDescriptor = descriptor.bytes.data();
    return NotifyAround(RegNtPreSetKeySecurity, RegNtPostSetKeySecurity, key, call,
                        [&] { return ReplaceSecurity(key.Node(), what, captured); });
}

}  // namespace platform
