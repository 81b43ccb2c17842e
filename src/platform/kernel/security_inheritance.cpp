#include "platform/kernel/security_inheritance.h"

#include "platform/kernel/object.h"

#include <cstring>

namespace platform {

namespace {

constexpr std::size_t kSidOffset = offsetof(ACCESS_ALLOWED_ACE, SidStart);
/// The bits of an entry's flags that have nothing to do with inheritance.
constexpr UCHAR kAuditFlags = 0xC0;
constexpr UCHAR kPassedOn = OBJECT_INHERIT_ACE | CONTAINER_INHERIT_ACE;

/// What the entries of one container's list become in a new object's.
class AceInheritance {
public:
    AceInheritance(const DescriptorParts& made, const GenericMapping& mapping)
        : made_(made), mapping_(mapping) {}

    void Add(AceBytes ace) {
        const UCHAR flags = HeaderOfAce(ace).AceFlags;
        const bool passedOn = (flags & NO_PROPAGATE_INHERIT_ACE) == 0;
        const auto kept = static_cast<UCHAR>((flags & kAuditFlags) | INHERITED_ACE |
                                             (passedOn ? flags & kPassedOn : 0));
        if ((flags & CONTAINER_INHERIT_ACE) == 0) {
            if ((flags & OBJECT_INHERIT_ACE) != 0 && passedOn) {
                Append({ace.begin(), ace.end()}, kept | INHERIT_ONLY_ACE);
            }
            return;
        }
        SecurityBytes own = ForObject(ace);
        // What stands for something else in the object must reach its own containers as it is.
        if (passedOn && !std::equal(own.begin(), own.end(), ace.begin(), ace.end())) {
            Append(std::move(own), kept & ~kPassedOn);
            Append({ace.begin(), ace.end()}, kept | INHERIT_ONLY_ACE);
        } else {
            Append(std::move(own), kept);
        }
    }
    std::vector<SecurityBytes> Take() { return std::move(entries_); }

private:
    void Append(SecurityBytes entry, int flags) {
        entry[offsetof(ACE_HEADER, AceFlags)] = static_cast<std::byte>(flags);
        entries_.push_back(std::move(entry));
    }

    /// The entry with its generic rights mapped, and the creator named.
    SecurityBytes ForObject(AceBytes ace) const {
        if (!IsPlainAce(ace)) return {ace.begin(), ace.end()};
        static const SecurityBytes creatorOwner = EncodeSecurityId({3, {0}});
        static const SecurityBytes creatorGroup = EncodeSecurityId({3, {1}});
        SecurityBytes sid(ace.begin() + kSidOffset, ace.end());
        if (sid == creatorOwner) sid = made_.owner;
        if (sid == creatorGroup) sid = made_.group;
        SecurityBytes entry(ace.begin(), ace.begin() + kSidOffset);
        entry.insert(entry.end(), sid.begin(), sid.end());
        const ACCESS_MASK mask = MapGeneric(MaskOfAce(ace), mapping_);
        std::memcpy(entry.data() + offsetof(ACCESS_ALLOWED_ACE, Mask), &mask, sizeof(mask));
        const auto size = static_cast<USHORT>(entry.size());
        std::memcpy(entry.data() + offsetof(ACE_HEADER, AceSize), &size, sizeof(size));
        return entry;
    }

    const DescriptorParts& made_;
    const GenericMapping& mapping_;
    std::vector<SecurityBytes> entries_;
};

/// Empty when the container passes nothing on.
NTSTATUS InheritAcl(const SecurityBytes& containers, const DescriptorParts& made,
                    const GenericMapping& mapping, SecurityBytes& acl) {
    if (containers.empty()) return STATUS_SUCCESS;
    AceInheritance inheritance(made, mapping);
    const std::vector<AceBytes> containersEntries = EntriesOf(containers).value();
    for (const AceBytes ace : containersEntries) {
        inheritance.Add(ace);
    }
    const std::vector<SecurityBytes> entries = inheritance.Take();
    if (entries.empty()) return STATUS_SUCCESS;
    std::size_t size = sizeof(ACL);
    for (const SecurityBytes& entry : entries) {
        size += entry.size();
    }
    if (size > 0xFFFF) return STATUS_BAD_INHERITANCE_ACL;
    acl = MakeAcl(entries);
    return STATUS_SUCCESS;
}

NTSTATUS MakeDacl(const DescriptorParts& container, const DescriptorParts* given,
                  const Identity& creator, const GenericMapping& mapping, DescriptorParts& made) {
    made.control |= SE_DACL_PRESENT;
    if (given != nullptr && (given->control & SE_DACL_PRESENT) != 0) {
        made.control |= given->control & SE_DACL_PROTECTED;
        made.dacl = MapAcl(given->dacl, mapping);
        return STATUS_SUCCESS;
    }
    const NTSTATUS status = InheritAcl(container.dacl, made, mapping, made.dacl);
    if (!made.dacl.empty()) {
        made.control |= SE_DACL_AUTO_INHERITED;
    } else if (NT_SUCCESS(status)) {
        made.dacl = MapAcl(creator.defaultDacl, mapping);
    }
    return status;
}

NTSTATUS MakeSacl(const DescriptorParts& container, const DescriptorParts* given,
                  const Identity& creator, const GenericMapping& mapping, DescriptorParts& made) {
    if (given != nullptr && (given->control & SE_SACL_PRESENT) != 0) {
        if (!creator.isPrivileged) return STATUS_PRIVILEGE_NOT_HELD;
        made.control |= SE_SACL_PRESENT | (given->control & SE_SACL_PROTECTED);
        made.sacl = MapAcl(given->sacl, mapping);
        return STATUS_SUCCESS;
    }
    const NTSTATUS status = InheritAcl(container.sacl, made, mapping, made.sacl);
    if (!made.sacl.empty()) made.control |= SE_SACL_PRESENT | SE_SACL_AUTO_INHERITED;
    return status;
}

}  // namespace

NTSTATUS MakeDescriptor(const DescriptorParts& container, const DescriptorParts* given,
                        const Identity& creator, const GenericMapping& mapping,
                        DescriptorParts& made) {
    const bool givesOwner = given != nullptr && !given->owner.empty();
    const bool givesGroup = given != nullptr && !given->group.empty();
    if (givesOwner && !MayAssignOwner(creator, given->owner)) return STATUS_INVALID_OWNER;
    made.owner = givesOwner ? given->owner : creator.owner;
    made.group = givesGroup ? given->group : creator.group;
    const NTSTATUS status = MakeDacl(container, given, creator, mapping, made);
    return NT_SUCCESS(status) ? MakeSacl(container, given, creator, mapping, made) : status;
}

SecurityBytes MapAcl(const SecurityBytes& acl, const GenericMapping& mapping) {
    if (acl.empty()) return {};
    SecurityBytes mapped = acl;
    const std::vector<AceBytes> entries = EntriesOf(acl).value();
    for (const AceBytes ace : entries) {
        const bool passedOnOnly = (HeaderOfAce(ace).AceFlags & INHERIT_ONLY_ACE) != 0;
        if (!IsPlainAce(ace) || passedOnOnly) continue;
        const ACCESS_MASK mask = MapGeneric(MaskOfAce(ace), mapping);
        const std::ptrdiff_t offset = ace.data() - acl.data();
        std::memcpy(mapped.data() + offset + offsetof(ACCESS_ALLOWED_ACE, Mask), &mask,
                    sizeof(mask));
    }
    return mapped;
}

}  // namespace platform
