// Creating and opening keys.
//
// Simplifications against Windows: a path that crosses symbolic links raises one pair of
// notifications, with the final status and object, where Windows raises one pair for each stretch
// (STATUS_REPARSE in between); keys may be created directly under \REGISTRY by anybody.
#include "platform/kernel/key_calls.h"
#include "platform/kernel/key_lookup.h"
#include "platform/kernel/registry_callbacks.h"
#include "platform/kernel/verifier.h"

#include <mutex>
#include <shared_mutex>

namespace platform {
namespace {

constexpr ULONG kValidOptions = 0x1F;
constexpr ULONG kValidAttributes = 0x1FF2;
constexpr ACCESS_MASK kWow64Bits = KEY_WOW64_64KEY | KEY_WOW64_32KEY;

/// What the caller asks for, captured.
struct OpenRequest {
    /// What `path` is relative to: the caller's root key, or the permanent object.
    ObjectRef<KeyObject> root;
    CapturedString name;       ///< as the caller gave it
    std::u16string_view path;  ///< the part of `name` that is relative to `root`
    CapturedString className;
    ULONG attributes = 0;
    ULONG options = 0;
    PVOID securityDescriptor = nullptr;
    PVOID securityQualityOfService = nullptr;

    NTSTATUS Capture(const CallerMemory& memory, POBJECT_ATTRIBUTES given, ULONG givenOptions,
                     const KeyCreation* creation);
    bool OpensLink() const {
        return (attributes & OBJ_OPENLINK) != 0 || (options & REG_OPTION_OPEN_LINK) != 0;
    }

private:
    NTSTATUS Locate(const CallerMemory& memory, HANDLE rootHandle);
};

NTSTATUS OpenRequest::Capture(const CallerMemory& memory, POBJECT_ATTRIBUTES given,
                              ULONG givenOptions, const KeyCreation* creation) {
    OBJECT_ATTRIBUTES captured;
    if (!memory.Load(captured, given)) return STATUS_ACCESS_VIOLATION;
    if (captured.Length != sizeof(captured) || (captured.Attributes & ~kValidAttributes) != 0 ||
        (givenOptions & ~kValidOptions) != 0) {
        return STATUS_INVALID_PARAMETER;
    }
    attributes = captured.Attributes;
    // Kernel handles are for kernel callers.
    if (memory.Mode() == UserMode) attributes &= ~OBJ_KERNEL_HANDLE;
    options = givenOptions;
    securityDescriptor = captured.SecurityDescriptor;
    securityQualityOfService = captured.SecurityQualityOfService;
    NTSTATUS status = name.Capture(memory, captured.ObjectName);
    if (!NT_SUCCESS(status)) return status;
    status = className.Capture(memory, creation != nullptr ? creation->className : nullptr);
    if (!NT_SUCCESS(status)) return status;
    return Locate(memory, captured.RootDirectory);
}

/// Finds the key that the name is relative to. Reading a root handle takes no right on it.
NTSTATUS OpenRequest::Locate(const CallerMemory& memory, HANDLE rootHandle) {
    const std::u16string_view given = name.Text();
    const bool isAbsolute = given.starts_with(u'\\');
    if (rootHandle != nullptr) {
        if (isAbsolute) return STATUS_OBJECT_PATH_SYNTAX_BAD;
        path = given;
        return ReferenceHandle(rootHandle, 0, kKeyType, memory.Mode(), root);
    }
    if (!isAbsolute) return STATUS_OBJECT_PATH_SYNTAX_BAD;
    if (!StripRegistryRoot(given, path)) return STATUS_OBJECT_PATH_NOT_FOUND;
    root = ObjectRef<KeyObject>(&RegistryRootObject());
    return STATUS_SUCCESS;
}

/// With the tree's lock held.
NTSTATUS Walk(const OpenRequest& request, PathEnd& end) {
    KeyNode& start = request.root->Node();
    if (start.IsDeleted()) return STATUS_KEY_DELETED;
    return WalkPath(RegistryTree(), start, request.path, request.OpensLink(), end);
}

NTSTATUS AddKey(const OpenRequest& request, PathEnd& end) {
    const KeyNode::Kind kind{.isVolatile = (request.options & REG_OPTION_VOLATILE) != 0,
                             .isLink = (request.options & REG_OPTION_CREATE_LINK) != 0};
    if (end.parent->IsVolatile() && !kind.isVolatile) return STATUS_CHILD_MUST_BE_VOLATILE;
    if (end.parent->Depth() == kMaxKeyDepth) return STATUS_INVALID_PARAMETER;
    end.key = &end.parent->AddSubkey(end.name, kind);
    end.key->SetClass(request.className.Text());
    return STATUS_SUCCESS;
}

NTSTATUS FindKey(const OpenRequest& request, KeyNodeRef& node) {
    const std::shared_lock guard(RegistryTree().lock);
    PathEnd end;
    const NTSTATUS status = Walk(request, end);
    if (!NT_SUCCESS(status)) return status;
    if (end.key == nullptr) return STATUS_OBJECT_NAME_NOT_FOUND;
    node = end.key->shared_from_this();
    return STATUS_SUCCESS;
}

NTSTATUS FindOrAddKey(const OpenRequest& request, KeyNodeRef& node, ULONG& disposition) {
    const std::unique_lock guard(RegistryTree().lock);
    PathEnd end;
    NTSTATUS status = Walk(request, end);
    if (!NT_SUCCESS(status)) return status;
    disposition = REG_OPENED_EXISTING_KEY;
    if (end.key == nullptr) {
        status = AddKey(request, end);
        if (!NT_SUCCESS(status)) return status;
        disposition = REG_CREATED_NEW_KEY;
    }
    node = end.key->shared_from_this();
    return STATUS_SUCCESS;
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
    OpenRequest request;
    NTSTATUS status = request.Capture(memory, attributes, options, creation);
    if (!NT_SUCCESS(status)) return status;

    ULONG disposition = 0;
    PVOID result = nullptr;
    UNICODE_STRING remainingName = Describe(request.path);
    REG_CREATE_KEY_INFORMATION call{};
    call.CompleteName = request.name.Descriptor();
    call.RootObject = request.root.get();
    call.ObjectType = *CmKeyObjectType;
    call.CreateOptions = options;
    call.Class = creation != nullptr ? request.className.Descriptor() : nullptr;
    call.SecurityDescriptor = request.securityDescriptor;
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
                                    request.root.get(),
                                    &result};
    status = NotifyAround(notification, [&] {
        KeyNodeRef node;
        disposition = REG_OPENED_EXISTING_KEY;
        const NTSTATUS found =
            creates ? FindOrAddKey(request, node, disposition) : FindKey(request, node);
        if (!NT_SUCCESS(found)) return found;
        call.GrantedAccess = MapAccess(desiredAccess & ~kWow64Bits, kKeyType);
        result = CreateObject<KeyObject>(kKeyType, std::move(node));
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
