// The security descriptors of keys.
//
// Each key has one, self-relative and whole, which is never changed: setting security gives the key
// another. So keys that inherited the same share it, and what it allows to whom is worked out once.
#pragma once

#include "platform/kernel/process.h"
#include "platform/kernel/security_descriptor.h"

#include <array>
#include <memory>

namespace platform {

class KeyObject;
class KeySecurity;
using KeySecurityRef = std::shared_ptr<const KeySecurity>;

class KeySecurity : public std::enable_shared_from_this<KeySecurity> {
public:
    explicit KeySecurity(DescriptorParts parts);
    /// What \REGISTRY has and everything below inherits: everything for the system and for
    /// administrators, reading for everybody.
    static KeySecurityRef OfRegistryRoot();

    const DescriptorParts& Parts() const { return parts_; }
    const SecurityDescriptor& Descriptor() const { return descriptor_; }
    ACCESS_MASK AllowedTo(const Token& token) const;

    /// The security of a new subkey; `given` may be null. Statuses as of MakeDescriptor. With the
    /// registry tree's lock held exclusively.
    NTSTATUS OfNewSubkey(const DescriptorParts* given, const Token& creator,
                         KeySecurityRef& made) const;

private:
    static constexpr std::size_t kAccounts =
        static_cast<std::size_t>(Token::Account::kRestricted) + 1;
    /// What a subkey of one account's inherits, once that was asked for.
    struct Inherited {
        bool isThis = false;
        KeySecurityRef other;
    };

    DescriptorParts parts_;
    SecurityDescriptor descriptor_;
    std::array<ACCESS_MASK, kAccounts> allowed_{};
    mutable std::array<Inherited, kAccounts> inherited_;
};

/// NtQuerySecurityObject and NtSetSecurityObject on a key, whose handle has `granted`.
NTSTATUS QueryKeySecurity(const CallerMemory& memory, KeyObject& key, ACCESS_MASK granted,
                          SECURITY_INFORMATION what, PSECURITY_DESCRIPTOR buffer, ULONG length,
                          PULONG lengthNeeded);
NTSTATUS SetKeySecurity(const CallerMemory& memory, KeyObject& key, ACCESS_MASK granted,
                        SECURITY_INFORMATION what, PSECURITY_DESCRIPTOR given);

}  // namespace platform
