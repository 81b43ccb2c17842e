// Saving keys to files, and filling them from files.
//
// Simplification against Windows: replacing a key takes effect at once, since a machine does not
// start again with the registry of the one before; so it needs a key below which nothing is open.
#include "platform/kernel/file_open.h"
#include "platform/kernel/hive_file.h"
#include "platform/kernel/key_calls.h"
#include "platform/kernel/registry_callbacks.h"
#include "platform/kernel/syscalls.h"
#include "platform/kernel/token_identity.h"

#include <mutex>
#include <shared_mutex>

namespace platform {

namespace {

constexpr ULONG kKnownRestoreFlags =
    REG_WHOLE_HIVE_VOLATILE | REG_REFRESH_HIVE | REG_NO_LAZY_FLUSH | REG_FORCE_RESTORE;

/// The host file behind a caller's handle, which must have any of `anyOf` granted; kernel code too
/// is held to what it opened.
NTSTATUS ReferenceHiveFile(const CallerMemory& memory, HANDLE handle, ACCESS_MASK anyOf,
                           ObjectRef<FileObject>& file) {
    ACCESS_MASK granted = 0;
    const NTSTATUS status = ReferenceHandle(handle, 0, kFileType, memory.Mode(), file, &granted);
    if (!NT_SUCCESS(status)) return status;
    if ((granted & anyOf) == 0) return STATUS_ACCESS_DENIED;
    return file->device ? STATUS_INVALID_DEVICE_REQUEST : STATUS_SUCCESS;
}

NTSTATUS SaveTo(const CallerMemory& memory, const KeyNode& key, HANDLE fileHandle) {
    ObjectRef<FileObject> file;
    const NTSTATUS status = ReferenceHiveFile(memory, fileHandle, FILE_WRITE_DATA, file);
    if (!NT_SUCCESS(status)) return status;
    const std::shared_lock guard(RegistryTree().lock);
    return key.IsDeleted() ? STATUS_KEY_DELETED : WriteHiveFile(*file, key);
}

NTSTATUS RestoreFrom(const CallerMemory& memory, KeyNode& key, HANDLE fileHandle, ULONG flags) {
    if ((flags & (REG_WHOLE_HIVE_VOLATILE | REG_REFRESH_HIVE)) != 0) return STATUS_NOT_SUPPORTED;
    ObjectRef<FileObject> file;
    NTSTATUS status = ReferenceHiveFile(memory, fileHandle, FILE_READ_DATA, file);
    if (!NT_SUCCESS(status)) return status;
    KeyNodeRef content;
    status = ReadHiveFile(*file, content);
    if (!NT_SUCCESS(status)) return status;
    const std::unique_lock guard(RegistryTree().lock);
    status = CheckReplacement(key, *content, (flags & REG_FORCE_RESTORE) != 0);
    return NT_SUCCESS(status) ? ReplaceByHive(key, *content) : status;
}

/// Nothing is written unless the new file is good and may take the key's place.
NTSTATUS ReplaceFrom(KeyNode& key, std::u16string_view newName, std::u16string_view oldName) {
    FileObject newFile;
    FileObject oldFile;
    KeyNodeRef content;
    NTSTATUS status = OpenHiveFile(newName, FILE_READ_DATA, FILE_OPEN, newFile);
    if (NT_SUCCESS(status)) status = ReadHiveFile(newFile, content);
    if (!NT_SUCCESS(status)) return status;
    const std::unique_lock guard(RegistryTree().lock);
    status = CheckReplacement(key, *content, false);
    if (NT_SUCCESS(status)) status = OpenHiveFile(oldName, FILE_WRITE_DATA, FILE_CREATE, oldFile);
    if (NT_SUCCESS(status)) status = WriteHiveFile(oldFile, key);
    return NT_SUCCESS(status) ? ReplaceByHive(key, *content) : status;
}

}  // namespace

NTSTATUS SaveKey(const CallerMemory& memory, HANDLE handle, HANDLE file, ULONG format) {
    const bool known = format == REG_STANDARD_FORMAT || format == REG_LATEST_FORMAT ||
                       format == REG_NO_COMPRESSION;
    if (!known) return STATUS_INVALID_PARAMETER;
    NTSTATUS status = RequirePrivilege(memory);
    if (!NT_SUCCESS(status)) return status;
    ObjectRef<KeyObject> key;
    status = ReferenceHandle(handle, 0, kKeyType, memory.Mode(), key);
    if (!NT_SUCCESS(status)) return status;
    REG_SAVE_KEY_INFORMATION call{};
    call.FileHandle = file;
    call.Format = format;
    return NotifyAround(RegNtPreSaveKey, RegNtPostSaveKey, *key, call,
                        [&] { return SaveTo(memory, key->Node(), file); });
}

NTSTATUS RestoreKey(const CallerMemory& memory, HANDLE handle, HANDLE file, ULONG flags) {
    if ((flags & ~kKnownRestoreFlags) != 0) return STATUS_INVALID_PARAMETER;
    NTSTATUS status = RequirePrivilege(memory);
    if (!NT_SUCCESS(status)) return status;
    ObjectRef<KeyObject> key;
    status = ReferenceHandle(handle, 0, kKeyType, memory.Mode(), key);
    if (!NT_SUCCESS(status)) return status;
    REG_RESTORE_KEY_INFORMATION call{};
    call.FileHandle = file;
    call.Flags = flags;
    return NotifyAround(RegNtPreRestoreKey, RegNtPostRestoreKey, *key, call,
                        [&] { return RestoreFrom(memory, key->Node(), file, flags); });
}

NTSTATUS ReplaceKey(const CallerMemory& memory, POBJECT_ATTRIBUTES newFile, HANDLE handle,
                    POBJECT_ATTRIBUTES oldFile) {
    NTSTATUS status = RequirePrivilege(memory);
    if (!NT_SUCCESS(status)) return status;
    CapturedString newName;
    CapturedString oldName;
    status = CaptureFileName(memory, newFile, newName);
    if (NT_SUCCESS(status)) status = CaptureFileName(memory, oldFile, oldName);
    if (!NT_SUCCESS(status)) return status;
    ObjectRef<KeyObject> key;
    status = ReferenceHandle(handle, 0, kKeyType, memory.Mode(), key);
    if (!NT_SUCCESS(status)) return status;
    REG_REPLACE_KEY_INFORMATION call{};
    call.OldFileName = oldName.Descriptor();
    call.NewFileName = newName.Descriptor();
    return NotifyAround(RegNtPreReplaceKey, RegNtPostReplaceKey, *key, call,
                        [&] { return ReplaceFrom(key->Node(), newName.Text(), oldName.Text()); });
}

}  // namespace platform
