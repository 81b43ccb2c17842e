#include "platform/kernel/hive_file.h"

#include "platform/kernel/hive_text.h"
#include "platform/kernel/key_security.h"
#include "platform/kernel/text.h"

#include <algorithm>
#include <cstdio>

namespace platform {

namespace {

NTSTATUS ReadWholeFile(FileObject& file, std::vector<std::byte>& bytes) {
    constexpr ULONG kChunk = 1 << 20;
    for (;;) {
        const std::size_t size = bytes.size();
        bytes.resize(size + kChunk);
        ULONG_PTR read = 0;
        const NTSTATUS status =
            ReadHostFile(file, {FilePlace::Kind::kOffset, static_cast<LONGLONG>(size)},
                         bytes.data() + size, kChunk, read);
        bytes.resize(size + read);
        if (status == STATUS_END_OF_FILE) return STATUS_SUCCESS;
        if (!NT_SUCCESS(status)) return status;
    }
}

NTSTATUS WriteWholeFile(FileObject& file, const std::vector<std::byte>& bytes) {
    constexpr std::size_t kMostAtOnce = 1 << 30;
    std::size_t written = 0;
    while (written < bytes.size()) {
        const auto length = static_cast<ULONG>(std::min(bytes.size() - written, kMostAtOnce));
        ULONG_PTR transferred = 0;
        const NTSTATUS status =
            WriteHostFile(file, {FilePlace::Kind::kOffset, static_cast<LONGLONG>(written)},
                          bytes.data() + written, length, transferred);
        if (!NT_SUCCESS(status)) return status;
        if (transferred == 0) return STATUS_DISK_FULL;
        written += transferred;
    }
    return TruncateHostFile(file, static_cast<LONGLONG>(bytes.size()));
}

/// Every key below `key` that has no security inherits from its parent, `key` itself from `parent`.
NTSTATUS InheritSecurity(KeyNode& key, const KeySecurity& parent, const Token& creator) {
    if (key.Security() == nullptr) {
        KeySecurityRef security;
        const NTSTATUS status = parent.OfNewSubkey(nullptr, creator, security);
        if (!NT_SUCCESS(status)) return status;
        key.SetSecurity(std::move(security));
    }
    for (std::size_t index = 0; KeyNode* subkey = key.SubkeyAt(index); ++index) {
        const NTSTATUS status = InheritSecurity(*subkey, *key.Security(), creator);
        if (!NT_SUCCESS(status)) return status;
    }
    return STATUS_SUCCESS;
}

}  // namespace

NTSTATUS OpenHiveFile(std::u16string_view name, ACCESS_MASK access, ULONG disposition,
                      FileObject& file) {
    const auto path = HostPath(name);
    if (!path) return STATUS_OBJECT_PATH_NOT_FOUND;
    file.name = name;
    ULONG_PTR created = 0;
    return OpenHostFile(file, *path, access, disposition, created);
}

NTSTATUS ReadHiveFile(FileObject& file, KeyNodeRef& content) {
    std::vector<std::byte> bytes;
    const NTSTATUS status = ReadWholeFile(file, bytes);
    if (!NT_SUCCESS(status)) return status;
    HiveTextError error;
    content = ReadHiveText(DecodeHiveText(bytes), error);
    if (content != nullptr) return STATUS_SUCCESS;
    std::fprintf(stderr, "hive file %s, line %zu: expected %s\n", ToUtf8(file.name).c_str(),
                 error.line, error.expected.c_str());
    return error.status;
}

NTSTATUS WriteHiveFile(FileObject& file, const KeyNode& key) {
    return WriteWholeFile(file, EncodeHiveText(WriteHiveText(key)));
}

NTSTATUS FlushHiveOf(const KeyNode& key) {
    const KeyNode* root = &key;
    while (root != nullptr && root->MountedHive() == nullptr)
        root = root->Parent();
    if (root == nullptr) return STATUS_SUCCESS;
    Hive& hive = *root->MountedHive();
    const std::lock_guard guard(hive.writing);
    return WriteHiveFile(hive.file, *root);
}

NTSTATUS CheckReplacement(const KeyNode& key, const KeyNode& content, bool force) {
    if (key.IsDeleted()) return STATUS_KEY_DELETED;
    // Above the places where hives are mounted nothing can be taken away.
    if (key.Depth() <= 1) return STATUS_ACCESS_DENIED;
    if (key.Depth() + content.Height() > kMaxKeyDepth) return STATUS_INVALID_PARAMETER;
    return key.HasOpenSubkeys() && !force ? STATUS_ACCESS_DENIED : STATUS_SUCCESS;
}

NTSTATUS ReplaceByHive(KeyNode& key, KeyNode& content) {
    const KeyNode* parent = key.Parent();
    const KeySecurity& above = parent != nullptr ? *parent->Security() : *key.Security();
    const NTSTATUS status = InheritSecurity(content, above, CurrentProcess().GetToken());
    if (NT_SUCCESS(status)) key.ReplaceContents(content);
    return status;
}

}  // namespace platform
