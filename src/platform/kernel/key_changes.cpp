// Changes to a key as a whole: deleting, renaming, flushing, setting information.
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

NTSTATUS SetWriteTime(const CallerMemory& memory, KeyNode& key, const void* information,
                      ULONG length) {
    KEY_WRITE_TIME_INFORMATION time;
    if (length != sizeof(time)) return STATUS_INFO_LENGTH_MISMATCH;
    if (!memory.Copy(&time, information, sizeof(time))) return STATUS_ACCESS_VIOLATION;
    const std::unique_lock guard(RegistryTree().lock);
    if (key.IsDeleted()) return STATUS_KEY_DELETED;
    key.SetLastWriteTime(time.LastWriteTime.QuadPart);
    return STATUS_SUCCESS;
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
        // The tree has no backing file to write to.
        const std::shared_lock guard(RegistryTree().lock);
        return key->Node().IsDeleted() ? STATUS_KEY_DELETED : STATUS_SUCCESS;
    });
}

NTSTATUS SetInformationKey(const CallerMemory& memory, HANDLE handle,
                           KEY_SET_INFORMATION_CLASS informationClass, PVOID information,
                           ULONG length) {
    ObjectRef<KeyObject> key;
    const NTSTATUS status = ReferenceHandle(handle, KEY_SET_VALUE, kKeyType, memory.Mode(), key);
    if (!NT_SUCCESS(status)) return status;
    REG_SET_INFORMATION_KEY_INFORMATION call{};
    call.KeySetInformationClass = informationClass;
    call.KeySetInformation = information;
    call.KeySetInformationLength = length;
    return NotifyAround(RegNtPreSetInformationKey, RegNtPostSetInformationKey, *key, call,
                        [&]() -> NTSTATUS {
                            if (informationClass != KeyWriteTimeInformation)
                                return STATUS_INVALID_INFO_CLASS;
                            return SetWriteTime(memory, key->Node(), information, length);
                        });
}

}  // namespace platform
