// Creating and opening keys.
//
// Simplifications against Windows: a path that crosses symbolic links raises one pair of
// notifications, with the final status and object, where Windows raises one pair for each stretch
// (STATUS_REPARSE in between); keys may be created directly under \REGISTRY; opening for backup or
// restore does not get round access lists.
#include "platform/kernel/key_calls.h"
#include "platform/kernel/key_lookup.h"
#include "platform/kernel/key_name.h"
#include "platform/kernel/key_security.h"
#include "platform/kernel/registry_callbacks.h"
#include "platform/kernel/token_identity.h"
#include "platform/kernel/verifier.h"

#include <mutex>
#include <shared_mutex>

namespace platform {
namespace {

constexpr ULONG kValidOptions = 0x1F;
constexpr ULONG kValidAttributes = 0x1FF2;
constexpr ACCESS_MASK kWow64Bits = KEY_WOW64_64KEY | KEY_WOW64_32KEY;

/// What the caller asks for, captured.
struct KeyRequest {
    KeyName name;
    CapturedString className;
    ACCESS_MASK desiredAccess = 0;
    ULONG attributes = 0;
    ULONG options = 0;
    /// The descriptor that a new key is to have, in parts and whole; empty: none.
    DescriptorParts securityParts;
    SecurityDescriptor security;
    PVOID securityQualityOfService = nullptr;
    KPROCESSOR_MODE mode = KernelMode;

    NTSTATUS Capture(const CallerMemory& memory, POBJECT_ATTRIBUTES given, ULONG givenOptions,
                     const KeyCreation* creation);
    bool OpensLink() const {
        return (attributes & OBJ_OPENLINK) != 0 || (options & REG_OPTION_OPEN_LINK) != 0;
    }
    /// Kernel code may do everything, unless it asks to be held to the caller's rights.
    bool ChecksAccess() const {
        return mode != KernelMode || (attributes & OBJ_FORCE_ACCESS_CHECK) != 0;
    }

private:
    NTSTATUS CaptureSecurity(const CallerMemory& memory, const void* given);
};

NTSTATUS KeyRequest::Capture(const CallerMemory& memory, POBJECT_ATTRIBUTES given,
                             ULONG givenOptions, const KeyCreation* creation) {
    OBJECT_ATTRIBUTES captured;
    if (!memory.Load(captured, given)) return STATUS_ACCESS_VIOLATION;
    if (captured.Length != sizeof(captured) || (captured.Attributes & ~kValidAttributes) != 0 ||
        (givenOptions & ~kValidOptions) != 0) {
        return STATUS_INVALID_PARAMETER;
    }
    mode = memory.Mode();
    attributes = captured.Attributes;
    // Kernel handles are for kernel callers.
    if (mode == UserMode) attributes &= ~OBJ_KERNEL_HANDLE;
    options = givenOptions;
    securityQualityOfService = captured.SecurityQualityOfService;
    NTSTATUS status = CaptureSecurity(memory, captured.SecurityDescriptor);
    if (!NT_SUCCESS(status)) return status;
    status = className.Capture(memory, creation != nullptr ? creation->className : nullptr);
    return NT_SUCCESS(status) ? name.Capture(memory, captured) : status;
}

NTSTATUS KeyRequest::CaptureSecurity(const CallerMemory& memory, const void* given) {
    if (given == nullptr) return STATUS_SUCCESS;
    const NTSTATUS status = CaptureDescriptor(memory, given, securityParts);
    if (NT_SUCCESS(status)) security = JoinDescriptor(securityParts);
    return status;
}

/// With the tree's lock held.
NTSTATUS Walk(const KeyRequest& request, PathEnd& end) {
    KeyNode& start = request.name.root->Node();
    if (start.IsDeleted()) return STATUS_KEY_DELETED;
    return WalkPath(RegistryTree(), start, request.name.path, request.OpensLink(), end);
}

const Token& CallerToken() {
    return CurrentProcess().GetToken();
}

/// What of the caller's request the key's access list grants.
NTSTATUS CheckAccess(const KeyRequest& request, const KeyNode& key, ACCESS_MASK& granted) {
    const ACCESS_MASK desired = request.desiredAccess & ~kWow64Bits;
    if (!request.ChecksAccess()) {
        granted = MapAccess(desired, kKeyType);
        return STATUS_SUCCESS;
    }
    const ACCESS_MASK allowed = key.Security()->AllowedTo(CallerToken());
    return GrantAccess(allowed, desired, kKeyType.mapping, &granted);
}

/// Whoever may create subkeys gets the right that is asked for on the new one, whatever its list
/// says, but for the right that takes a privilege.
NTSTATUS CheckCreation(const KeyRequest& request, const KeyNode& parent, ACCESS_MASK& granted) {
    granted = MapAccess(request.desiredAccess & ~kWow64Bits, kKeyType);
    if (!request.ChecksAccess()) return STATUS_SUCCESS;
    const bool isLink = (request.options & REG_OPTION_CREATE_LINK) != 0;
    const ACCESS_MASK needed = KEY_CREATE_SUB_KEY | (isLink ? KEY_CREATE_LINK : 0);
    const bool mayCreate = (needed & ~parent.Security()->AllowedTo(CallerToken())) == 0;
    const bool asksPrivilege = (granted & ACCESS_SYSTEM_SECURITY) != 0;
    if (asksPrivilege && !IdentityOf(CallerToken()).isPrivileged) return STATUS_PRIVILEGE_NOT_HELD;
    return mayCreate ? STATUS_SUCCESS : STATUS_ACCESS_DENIED;
}

NTSTATUS AddKey(const KeyRequest& request, PathEnd& end, ACCESS_MASK& granted) {
    const KeyNode::Kind kind{.isVolatile = (request.options & REG_OPTION_VOLATILE) != 0,
                             .isLink = (request.options & REG_OPTION_CREATE_LINK) != 0};
    NTSTATUS status = CheckCreation(request, *end.parent, granted);
    if (!NT_SUCCESS(status)) return status;
    if (end.parent->IsVolatile() && !kind.isVolatile) return STATUS_CHILD_MUST_BE_VOLATILE;
    if (end.parent->Depth() == kMaxKeyDepth) return STATUS_INVALID_PARAMETER;
    KeySecurityRef security;
    const DescriptorParts* parts = request.security.Empty() ? nullptr : &request.securityParts;
    status = end.parent->Security()->OfNewSubkey(parts, CallerToken(), security);
    if (!NT_SUCCESS(status)) return status;
    end.key = &end.parent->AddSubkey(end.name, kind);
    end.key->SetClass(request.className.Text());
    end.key->SetSecurity(std::move(security));
    return STATUS_SUCCESS;
}

/// A key that was found or made for a request, and the access to it.
struct KeyGrant {
    KeyNodeRef node;
    ACCESS_MASK access = 0;
};

NTSTATUS FindKey(const KeyRequest& request, KeyGrant& grant) {
    const std::shared_lock guard(RegistryTree().lock);
    PathEnd end;
    NTSTATUS status = Walk(request, end);
    if (!NT_SUCCESS(status)) return status;
    if (end.key == nullptr) return STATUS_OBJECT_NAME_NOT_FOUND;
    status = CheckAccess(request, *end.key, grant.access);
    if (NT_SUCCESS(status)) grant.node = end.key->shared_from_this();
    return status;
}

NTSTATUS FindOrAddKey(const KeyRequest& request, KeyGrant& grant, ULONG& disposition) {
    const std::unique_lock guard(RegistryTree().lock);
    PathEnd end;
    NTSTATUS status = Walk(request, end);
    if (!NT_SUCCESS(status)) return status;
    disposition = end.key == nullptr ? REG_CREATED_NEW_KEY : REG_OPENED_EXISTING_KEY;
    status = end.key == nullptr ? AddKey(request, end, grant.access)
                                : CheckAccess(request, *end.key, grant.access);
    if (NT_SUCCESS(status)) grant.node = end.key->shared_from_this();
    return status;
}

/// The object that a successful create or open gives; takes over the reference in `result`.
ObjectRef<KeyObject> TakeResult(PVOID result, NTSTATUS status) {
    auto key = ObjectRef<KeyObject>::Adopt(static_cast<KeyObject*>(result));
    if (NT_SUCCESS(status) && (!key || TypeOf(key.get()) != &kKeyType)) {
        Violation(Rule::kCallbackContract,
                  "a registry callback made a create or open succeed without a key in ResultObject",
                  result);
    }
    return key;
}

NTSTATUS GiveHandle(const CallerMemory& memory, KeyObject& key, ACCESS_MASK granted,
                    ULONG attributes, PHANDLE handle) {
    HANDLE opened = nullptr;
    const NTSTATUS status = CreateHandle(&key, granted, attributes, &opened);
    if (!NT_SUCCESS(status)) return status;
    if (memory.Store(handle, opened)) return STATUS_SUCCESS;
    CloseHandle(opened, KernelMode);
    return STATUS_ACCESS_VIOLATION;
}

}  // namespace

NTSTATUS OpenKey(const CallerMemory& memory, PHANDLE handle, ACCESS_MASK desiredAccess,
                 POBJECT_ATTRIBUTES attributes, ULONG options, const KeyCreation* creation) {
    // A bad place for the handle must be found before a key is created.
    if (!memory.Store(handle, HANDLE{nullptr})) return STATUS_ACCESS_VIOLATION;
    KeyRequest request;
    NTSTATUS status = request.Capture(memory, attributes, options, creation);
    if (!NT_SUCCESS(status)) return status;
    request.desiredAccess = desiredAccess;

    ULONG disposition = 0;
    PVOID result = nullptr;
    UNICODE_STRING remainingName = Describe(request.name.path);
    REG_CREATE_KEY_INFORMATION call{};
    call.CompleteName = request.name.given.Descriptor();
    call.RootObject = request.name.root.get();
    call.ObjectType = *CmKeyObjectType;
    call.CreateOptions = options;
    call.Class = creation != nullptr ? request.className.Descriptor() : nullptr;
    call.SecurityDescriptor = request.security.Empty() ? nullptr : request.security.bytes.data();
    call.SecurityQualityOfService = request.securityQualityOfService;
    call.DesiredAccess = desiredAccess;
    call.Disposition = &disposition;
    call.ResultObject = &result;
    call.Version = 1;
    call.RemainingName = &remainingName;
    call.Wow64Flags = desiredAccess & kWow64Bits;
    call.Attributes = request.attributes;
    call.CheckAccessMode = memory.Mode();

    const bool creates = creation != nullptr;
    const Notification notification{creates ? RegNtPreCreateKeyEx : RegNtPreOpenKeyEx,
                                    creates ? RegNtPostCreateKeyEx : RegNtPostOpenKeyEx,
                                    &call,
                                    &call.CallContext,
                                    &call.RootObjectContext,
                                    request.name.root.get(),
                                    &result};
    status = NotifyAround(notification, [&] {
        KeyGrant grant;
        disposition = REG_OPENED_EXISTING_KEY;
        const NTSTATUS found =
            creates ? FindOrAddKey(request, grant, disposition) : FindKey(request, grant);
        if (!NT_SUCCESS(found)) return found;
        call.GrantedAccess = grant.access;
        result = CreateObject<KeyObject>(kKeyType, std::move(grant.node));
        return STATUS_SUCCESS;
    });
    const ObjectRef<KeyObject> key = TakeResult(result, status);
    if (!NT_SUCCESS(status)) return status;
    if (creates && creation->disposition != nullptr &&
        !memory.Store(creation->disposition, disposition)) {
        return STATUS_ACCESS_VIOLATION;
    }
    return GiveHandle(memory, *key, call.GrantedAccess, request.attributes, handle);
}

}  // namespace platform
