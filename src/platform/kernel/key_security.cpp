#include "platform/kernel/key_security.h"

#include "platform/kernel/key_object.h"
#include "platform/kernel/security_inheritance.h"

#include <mutex>

namespace platform {

namespace {

constexpr std::u16string_view kRootSecurity =
    u"O:BAG:SYD:P(A;CI;KA;;;SY)(A;CI;KA;;;BA)(A;CI;KR;;;WD)(A;CI;KR;;;RC)";

std::size_t IndexOf(const Token& token) {
    return static_cast<std::size_t>(token.account);
}

}  // namespace

KeySecurity::KeySecurity(DescriptorParts parts)
    : parts_(std::move(parts)), descriptor_(JoinDescriptor(parts_)) {
    for (std::size_t account = 0; account < kAccounts; ++account) {
        const Token token{static_cast<Token::Account>(account)};
        FindAllowedAccess(descriptor_, token, kKeyType.mapping, &allowed_[account]);
    }
}

KeySecurityRef KeySecurity::OfRegistryRoot() {
    SecurityDescriptor descriptor;
    DescriptorParts parts;
    ParseSddl(kRootSecurity, descriptor);
    CaptureDescriptor(CallerMemory(KernelMode), descriptor.bytes.data(), parts);
    return std::make_shared<const KeySecurity>(std::move(parts));
}

ACCESS_MASK KeySecurity::AllowedTo(const Token& token) const {
    return allowed_[IndexOf(token)];
}

NTSTATUS KeySecurity::OfNewSubkey(const DescriptorParts* given, const Token& creator,
                                  KeySecurityRef& made) const {
    Inherited& inherited = inherited_[IndexOf(creator)];
    if (given == nullptr && (inherited.isThis || inherited.other != nullptr)) {
        made = inherited.isThis ? shared_from_this() : inherited.other;
        return STATUS_SUCCESS;
    }
    DescriptorParts parts;
    const NTSTATUS status =
        MakeDescriptor(parts_, given, IdentityOf(creator), kKeyType.mapping, parts);
    if (!NT_SUCCESS(status)) return status;
    made = std::make_shared<const KeySecurity>(std::move(parts));
    if (given != nullptr) return STATUS_SUCCESS;
    inherited.isThis = made->Descriptor().bytes == descriptor_.bytes;
    if (inherited.isThis) {
        made = shared_from_this();
    } else {
        inherited.other = made;
    }
    return STATUS_SUCCESS;
}

}  // namespace platform
