// Mounting hives in the tree and taking them out again.
#include "platform/kernel/file_open.h"
#include "platform/kernel/hive_file.h"
#include "platform/kernel/key_calls.h"
#include "platform/kernel/key_lookup.h"
#include "platform/kernel/key_name.h"
#include "platform/kernel/key_security.h"
#include "platform/kernel/registry_callbacks.h"
#include "platform/kernel/syscalls.h"
#include "platform/kernel/token_identity.h"

#include <mutex>

namespace platform {

namespace {

/// A hive that is to be mounted, and what its file holds.
struct NewHive {
    HiveRef hive = std::make_shared<Hive>();
    KeyNodeRef content;

    /// A file that is missing or empty is a hive without anything in it.
    NTSTATUS Open(std::u16string_view fileName) {
        NTSTATUS status =
            OpenHiveFile(fileName, FILE_READ_DATA | FILE_WRITE_DATA, FILE_OPEN_IF, hive->file);
        LONGLONG size = 0;
        if (NT_SUCCESS(status)) status = SizeOfHostFile(hive->file, size);
        if (!NT_SUCCESS(status)) return status;
        if (size != 0) return ReadHiveFile(hive->file, content);
        content = std::make_shared<KeyNode>(u"", KeyNode::Kind{});
        return STATUS_SUCCESS;
    }
};

/// Hives are mounted directly below MACHINE and USER.
bool IsMountPlace(const KeyNode& parent) {
    return parent.Depth() == 1 && parent.IsPermanent();
}

bool IsMounted(const FileObject& file) {
    const KeyNode& root = *RegistryTree().root;
    for (std::size_t place = 0; const KeyNode* parent = root.SubkeyAt(place); ++place) {
        for (std::size_t index = 0; const KeyNode* key = parent->SubkeyAt(index); ++index) {
            const HiveRef& hive = key->MountedHive();
            if (hive != nullptr && IsSameHostFile(hive->file, file)) return true;
        }
    }
    return false;
}

NTSTATUS MountAt(const KeyName& target, NewHive& newHive) {
    const std::unique_lock guard(RegistryTree().lock);
    KeyNode& start = target.root->Node();
    if (start.IsDeleted()) return STATUS_KEY_DELETED;
    PathEnd end;
    NTSTATUS status = WalkPath(RegistryTree(), start, target.path, false, end);
    if (!NT_SUCCESS(status)) return status;
    if (end.key != nullptr) return STATUS_OBJECT_NAME_COLLISION;
    if (!IsMountPlace(*end.parent)) return STATUS_INVALID_PARAMETER;
    if (IsMounted(newHive.hive->file)) return STATUS_SHARING_VIOLATION;
    KeyNode& mounted = end.parent->AddSubkey(end.name, {});
    status = CheckReplacement(mounted, *newHive.content, false);
    if (NT_SUCCESS(status)) status = ReplaceByHive(mounted, *newHive.content);
    if (NT_SUCCESS(status)) {
        mounted.Mount(newHive.hive);
    } else {
        mounted.Delete();
    }
    return status;
}

/// Writes the hive back and takes it out of the tree, if nobody but the caller has a key of it
/// open.
NTSTATUS Unmount(const KeyNode& key) {
    const std::unique_lock guard(RegistryTree().lock);
    if (key.IsDeleted()) return STATUS_KEY_DELETED;
    if (key.MountedHive() == nullptr) return STATUS_INVALID_PARAMETER;
    const KeyNodeRef self = std::const_pointer_cast<KeyNode>(key.shared_from_this());
    constexpr long kTreeCallerAndSelf = 3;
    if (self.use_count() > kTreeCallerAndSelf || key.HasOpenSubkeys()) return STATUS_CANNOT_DELETE;
    const NTSTATUS status = FlushHiveOf(key);
    if (NT_SUCCESS(status)) self->Delete();
    return status;
}

/// Opens the key as any caller does, callbacks and access check included, and closes its handle
/// again.
NTSTATUS OpenBriefly(const CallerMemory& memory, POBJECT_ATTRIBUTES attributes,
                     ObjectRef<KeyObject>& key) {
    HANDLE handle = nullptr;
    NTSTATUS status = OpenKey(memory, &handle, KEY_WRITE, attributes, 0, nullptr);
    if (!NT_SUCCESS(status)) return status;
    status = ReferenceHandle(handle, KEY_WRITE, kKeyType, memory.Mode(), key);
    CloseHandle(handle, memory.Mode());
    return status;
}

}  // namespace

NTSTATUS LoadKey(const CallerMemory& memory, POBJECT_ATTRIBUTES targetKey,
                 POBJECT_ATTRIBUTES sourceFile) {
    NTSTATUS status = RequirePrivilege(memory);
    if (!NT_SUCCESS(status)) return status;
    OBJECT_ATTRIBUTES attributes;
    if (!memory.Load(attributes, targetKey)) return STATUS_ACCESS_VIOLATION;
    if (attributes.Length != sizeof(attributes)) return STATUS_INVALID_PARAMETER;
    KeyName target;
    CapturedString source;
    status = target.Capture(memory, attributes);
    if (NT_SUCCESS(status)) status = CaptureFileName(memory, sourceFile, source);
    if (!NT_SUCCESS(status)) return status;

    REG_LOAD_KEY_INFORMATION call{};
    call.KeyName = target.given.Descriptor();
    call.SourceFile = source.Descriptor();
    return NotifyAround(RegNtPreLoadKey, RegNtPostLoadKey, *target.root, call, [&] {
        NewHive newHive;
        const NTSTATUS opened = newHive.Open(source.Text());
        return NT_SUCCESS(opened) ? MountAt(target, newHive) : opened;
    });
}

NTSTATUS UnloadKey(const CallerMemory& memory, POBJECT_ATTRIBUTES targetKey) {
    NTSTATUS status = RequirePrivilege(memory);
    if (!NT_SUCCESS(status)) return status;
    ObjectRef<KeyObject> key;
    status = OpenBriefly(memory, targetKey, key);
    if (!NT_SUCCESS(status)) return status;
    REG_UNLOAD_KEY_INFORMATION call{};
    return NotifyAround(RegNtPreUnLoadKey, RegNtPostUnLoadKey, *key, call,
                        [&] { return Unmount(key->Node()); });
}

}  // namespace platform
