// Hives in files of the host: reading and writing them, and the files behind mounted hives.
#pragma once

#include "platform/kernel/host_file.h"
#include "platform/kernel/key_tree.h"

#include <mutex>
#include <string_view>

namespace platform {

/// A mounted hive: its file, open as long as it is mounted, and only one writes to it at a time.
struct Hive {
    FileObject file;
    std::mutex writing;  ///< taken after the tree's lock
};

/// Opens the host file of an absolute name, which NtCreateFile would open.
/// STATUS_OBJECT_PATH_NOT_FOUND for another name.
NTSTATUS OpenHiveFile(std::u16string_view name, ACCESS_MASK access, ULONG disposition,
                      FileObject& file);

/// The file's keys, as a root of their own. STATUS_NOT_REGISTRY_FILE or STATUS_REGISTRY_CORRUPT
/// when it has none; what was expected where is told on standard error. No lock of the registry is
/// held.
NTSTATUS ReadHiveFile(FileObject& file, KeyNodeRef& content);
/// Makes the key and what is below it the file's content. The tree's lock is held, shared at least.
NTSTATUS WriteHiveFile(FileObject& file, const KeyNode& key);

/// Writes the mounted hive that the key belongs to back to its file, if it belongs to one. The
/// tree's lock is held, shared at least.
NTSTATUS FlushHiveOf(const KeyNode& key);

/// Whether `content` fits below `key` and may take the place of what is there; with `force` even of
/// keys that are open. The tree's lock is held exclusively.
NTSTATUS CheckReplacement(const KeyNode& key, const KeyNode& content, bool force);
/// Puts `content` in the place of the key's content. Keys without security get what a new key would
/// inherit. The tree's lock is held exclusively.
NTSTATUS ReplaceByHive(KeyNode& key, KeyNode& content);

}  // namespace platform
