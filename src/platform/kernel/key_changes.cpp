// Changes to a key as a whole: deleting, renaming, flushing, setting information.
#include "platform/kernel/hive_file.h"
#include "platform/kernel/key_calls.h"
#include "platform/kernel/registry_callbacks.h"

#include <mutex>

namespace platform {
namespace {

NTSTATUS DeleteNode(KeyNode& key) {
    const std::unique_lock guard(RegistryTree().lock);
    // What is gone already needs no deleting.
    if (key.IsDeleted()) return STATUS_SUCCESS;
    if (key.IsPermanent() || key.HasSubkeys()) return STATUS_CANNOT_DELETE;
    key.Delete();
    return STATUS_SUCCESS;
}

NTSTATUS RenameNode(KeyNode& key, std::u16string_view name) {
    const std::unique_lock guard(RegistryTree().lock);
    if (key.IsDeleted()) return STATUS_KEY_DELETED;
    if (key.IsPermanent()) return STATUS_ACCESS_DENIED;
    const KeyNode* sibling = key.Parent()->FindSubkey(name);
    // The documented status for a name that is taken.
    if (sibling != nullptr && sibling != &key) return STATUS_CANNOT_DELETE;
    key.Rename(name);
    return STATUS_SUCCESS;
}

/// The caller's structure, whose size must be right.
template <typename T>
NTSTATUS CaptureInformation(const CallerMemory& memory, const void* information, ULONG length,
                            T& captured) {
    if (length != sizeof(captured)) return STATUS_INFO_LENGTH_MISMATCH;
    return memory.Copy(&captured, information, sizeof(captured)) ? STATUS_SUCCESS
                                                                 : STATUS_ACCESS_VIOLATION;
}

NTSTATUS SetWriteTime(const CallerMemory& memory, KeyNode& key, const void* information,
                      ULONG length) {
    KEY_WRITE_TIME_INFORMATION time;
    const NTSTATUS status = CaptureInformation(memory, information, length, time);
    if (!NT_SUCCESS(status)) return status;
    const std::unique_lock guard(RegistryTree().lock);
    if (key.IsDeleted()) return STATUS_KEY_DELETED;
    key.SetLastWriteTime(time.LastWriteTime.QuadPart);
    return STATUS_SUCCESS;
}

NTSTATUS SetFlags(const CallerMemory& memory, KeyNode& key, ULONG KeyFlags::*flag,
                  const void* information, ULONG length) {
    ULONG value = 0;
    const NTSTATUS status = CaptureInformation(memory, information, length, value);
    if (!NT_SUCCESS(status)) return status;
    constexpr ULONG kVirtualizationBits = 7;
    if (flag == &KeyFlags::virtualization && (value & ~kVirtualizationBits) != 0) {
        return STATUS_INVALID_PARAMETER;
    }
    const std::unique_lock guard(RegistryTree().lock);
    if (key.IsDeleted()) return STATUS_KEY_DELETED;
    KeyFlags flags = key.Flags();
    flags.*flag = value;
    key.SetFlags(flags);
    return STATUS_SUCCESS;
}

NTSTATUS SetHandleTags(const CallerMemory& memory, KeyObject& key, const void* information,
                       ULONG length) {
    KEY_HANDLE_TAGS_INFORMATION tags;
    const NTSTATUS status = CaptureInformation(memory, information, length, tags);
    if (NT_SUCCESS(status)) key.SetHandleTags(tags.HandleTags);
    return status;
}

NTSTATUS SetInformation(const CallerMemory& memory, KeyObject& key,
                        KEY_SET_INFORMATION_CLASS informationClass, const void* information,
                        ULONG length) {
    switch (informationClass) {
        case KeyWriteTimeInformation:
            return SetWriteTime(memory, key.Node(), information, length);
        case KeyWow64FlagsInformation:
            return SetFlags(memory, key.Node(), &KeyFlags::wow64, information, length);
        case KeyControlFlagsInformation:
            return SetFlags(memory, key.Node(), &KeyFlags::control, information, length);
        case KeySetVirtualizationInformation:
            return SetFlags(memory, key.Node(), &KeyFlags::virtualization, information, length);
        case KeySetHandleTagsInformation:
            return SetHandleTags(memory, key, information, length);
        default:
            return STATUS_INVALID_INFO_CLASS;
    }
}

}  // namespace

NTSTATUS DeleteKey(const CallerMemory& memory, HANDLE handle) {
    ObjectRef<KeyObject> key;
    const NTSTATUS status = ReferenceHandle(handle, DELETE_ACCESS, kKeyType, memory.Mode(), key);
    if (!NT_SUCCESS(status)) return status;
    REG_DELETE_KEY_INFORMATION call{};
    return NotifyAround(RegNtPreDeleteKey, RegNtPostDeleteKey, *key, call,
                        [&] { return DeleteNode(key->Node()); });
}

NTSTATUS RenameKey(const CallerMemory& memory, HANDLE handle, PUNICODE_STRING newName) {
    ObjectRef<KeyObject> key;
    NTSTATUS status = ReferenceHandle(handle, KEY_WRITE, kKeyType, memory.Mode(), key);
    if (!NT_SUCCESS(status)) return status;
    CapturedString captured;
    status = captured.Capture(memory, newName);
    if (!NT_SUCCESS(status)) return status;
    const std::u16string_view name = captured.Text();
    if (name.empty() || name.size() > kMaxKeyNameCharacters || name.find(u'\\') != name.npos) {
        return STATUS_INVALID_PARAMETER;
    }
    REG_RENAME_KEY_INFORMATION call{};
    call.NewName = captured.Descriptor();
    return NotifyAround(RegNtPreRenameKey, RegNtPostRenameKey, *key, call,
                        [&] { return RenameNode(key->Node(), name); });
}

NTSTATUS FlushKey(const CallerMemory& memory, HANDLE handle) {
    ObjectRef<KeyObject> key;
    const NTSTATUS status = ReferenceHandle(handle, 0, kKeyType, memory.Mode(), key);
    if (!NT_SUCCESS(status)) return status;
    REG_FLUSH_KEY_INFORMATION call{};
    return NotifyAround(RegNtPreFlushKey, RegNtPostFlushKey, *key, call, [&] {
        const std::shared_lock guard(RegistryTree().lock);
        return key->Node().IsDeleted() ? STATUS_KEY_DELETED : FlushHiveOf(key->Node());
    });
}

NTSTATUS SetInformationKey(const CallerMemory& memory, HANDLE handle,
                           KEY_SET_INFORMATION_CLASS informationClass, PVOID information,
                           ULONG length) {
    ObjectRef<KeyObject> key;
    // Handle tags are the handle's own affair.
    const ACCESS_MASK needed = informationClass == KeySetHandleTagsInformation ? 0 : KEY_SET_VALUE;
    const NTSTATUS status = ReferenceHandle(handle, needed, kKeyType, memory.Mode(), key);
    if (!NT_SUCCESS(status)) return status;
    REG_SET_INFORMATION_KEY_INFORMATION call{};
    call.KeySetInformationClass = informationClass;
    call.KeySetInformation = information;
    call.KeySetInformationLength = length;
    return NotifyAround(RegNtPreSetInformationKey, RegNtPostSetInformationKey, *key, call, [&] {
        return SetInformation(memory, *key, informationClass, information, length);
    });
}

}  // namespace platform
