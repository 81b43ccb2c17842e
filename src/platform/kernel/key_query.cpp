// Queries of keys and enumeration of subkeys.
#include "platform/kernel/information_writer.h"
#include "platform/kernel/key_calls.h"
#include "platform/kernel/registry_callbacks.h"

#include <mutex>
#include <shared_mutex>

namespace platform {
namespace {

void WriteBasic(const KeyNode& key, InformationWriter& writer) {
    KEY_BASIC_INFORMATION fixed{};
    fixed.LastWriteTime.QuadPart = key.LastWriteTime();
    fixed.NameLength = ByteLength(key.Name());
    writer.Fixed(&fixed, offsetof(KEY_BASIC_INFORMATION, Name));
    writer.Variable(offsetof(KEY_BASIC_INFORMATION, Name), key.Name());
}

void WriteNode(const KeyNode& key, InformationWriter& writer) {
    constexpr ULONG kNameOffset = offsetof(KEY_NODE_INFORMATION, Name);
    KEY_NODE_INFORMATION fixed{};
    fixed.LastWriteTime.QuadPart = key.LastWriteTime();
    fixed.NameLength = ByteLength(key.Name());
    fixed.ClassLength = ByteLength(key.Class());
    fixed.ClassOffset = key.Class().empty() ? kNoOffset : kNameOffset + fixed.NameLength;
    writer.Fixed(&fixed, kNameOffset);
    writer.Variable(kNameOffset, key.Name());
    if (!key.Class().empty()) writer.Variable(fixed.ClassOffset, key.Class());
}

void WriteFull(const KeyNode& key, InformationWriter& writer) {
    constexpr ULONG kClassOffset = offsetof(KEY_FULL_INFORMATION, Class);
    const KeyCounts counts = key.Counts();
    KEY_FULL_INFORMATION fixed{};
    fixed.LastWriteTime.QuadPart = key.LastWriteTime();
    fixed.ClassLength = ByteLength(key.Class());
    fixed.ClassOffset = key.Class().empty() ? kNoOffset : kClassOffset;
    fixed.SubKeys = counts.subkeys;
    fixed.MaxNameLen = counts.maxNameLength;
    fixed.MaxClassLen = counts.maxClassLength;
    fixed.Values = counts.values;
    fixed.MaxValueNameLen = counts.maxValueNameLength;
    fixed.MaxValueDataLen = counts.maxValueDataLength;
    writer.Fixed(&fixed, kClassOffset);
    writer.Variable(kClassOffset, key.Class());
}

void WriteName(const KeyNode& key, InformationWriter& writer) {
    const std::u16string name = key.FullName();
    const ULONG nameLength = ByteLength(name);
    writer.Fixed(&nameLength, sizeof(nameLength));
    writer.Variable(offsetof(KEY_NAME_INFORMATION, Name), name);
}

void WriteCached(const KeyNode& key, InformationWriter& writer) {
    const KeyCounts counts = key.Counts();
    KEY_CACHED_INFORMATION fixed{};
    fixed.LastWriteTime.QuadPart = key.LastWriteTime();
    fixed.SubKeys = counts.subkeys;
    fixed.MaxNameLen = counts.maxNameLength;
    fixed.Values = counts.values;
    fixed.MaxValueNameLen = counts.maxValueNameLength;
    fixed.MaxValueDataLen = counts.maxValueDataLength;
    fixed.NameLength = ByteLength(key.Name());
    writer.Fixed(&fixed, sizeof(fixed));
}

void WriteFlags(const KeyNode& key, InformationWriter& writer) {
    constexpr ULONG kVolatile = 1;
    constexpr ULONG kSymbolicLink = 2;
    KEY_FLAGS_INFORMATION fixed{};
    fixed.Wow64Flags = key.Flags().wow64;
    fixed.KeyFlags = (key.IsVolatile() ? kVolatile : 0) | (key.IsLink() ? kSymbolicLink : 0);
    fixed.ControlFlags = key.Flags().control;
    writer.Fixed(&fixed, sizeof(fixed));
}

/// Nothing is virtualized: a key is no candidate, whatever it was set to.
void WriteVirtualization(const KeyNode& key, InformationWriter& writer) {
    constexpr unsigned kSetBits = 2;  // behind candidate and enabled
    const KEY_VIRTUALIZATION_INFORMATION fixed{key.Flags().virtualization << kSetBits};
    writer.Fixed(&fixed, sizeof(fixed));
}

/// There are neither trusted hives nor layers of them.
void WriteNoBits(const KeyNode&, InformationWriter& writer) {
    constexpr ULONG kNone = 0;
    writer.Fixed(&kNone, sizeof(kNone));
}

using WriteKey = void (*)(const KeyNode& key, InformationWriter& writer);

/// Null for a class that cannot be asked for.
WriteKey WriterOf(KEY_INFORMATION_CLASS informationClass, bool enumerating) {
    switch (informationClass) {
        case KeyBasicInformation:
            return WriteBasic;
        case KeyNodeInformation:
            return WriteNode;
        case KeyFullInformation:
            return WriteFull;
        case KeyNameInformation:
            return enumerating ? nullptr : WriteName;
        case KeyCachedInformation:
            return enumerating ? nullptr : WriteCached;
        case KeyFlagsInformation:
            return enumerating ? nullptr : WriteFlags;
        case KeyVirtualizationInformation:
            return enumerating ? nullptr : WriteVirtualization;
        case KeyTrustInformation:
        case KeyLayerInformation:
            return enumerating ? nullptr : WriteNoBits;
        default:
            return nullptr;
    }
}

}  // namespace

NTSTATUS QueryKey(const CallerMemory& memory, HANDLE handle, KEY_INFORMATION_CLASS informationClass,
                  PVOID information, ULONG length, PULONG resultLength) {
    const bool ofHandle = informationClass == KeyHandleTagsInformation;
    const WriteKey write = WriterOf(informationClass, false);
    if (write == nullptr && !ofHandle) return STATUS_INVALID_PARAMETER;
    // A key's name is no secret from whoever holds a handle to it.
    const bool isPublic = informationClass == KeyNameInformation || ofHandle;
    const ACCESS_MASK needed = isPublic ? 0 : KEY_QUERY_VALUE;
    ObjectRef<KeyObject> key;
    const NTSTATUS status = ReferenceHandle(handle, needed, kKeyType, memory.Mode(), key);
    if (!NT_SUCCESS(status)) return status;

    REG_QUERY_KEY_INFORMATION call{};
    call.KeyInformationClass = informationClass;
    call.KeyInformation = information;
    call.Length = length;
    call.ResultLength = resultLength;
    return NotifyAround(RegNtPreQueryKey, RegNtPostQueryKey, *key, call, [&]() -> NTSTATUS {
        const std::shared_lock guard(RegistryTree().lock);
        if (key->Node().IsDeleted()) return STATUS_KEY_DELETED;
        InformationWriter writer(memory, information, length, resultLength);
        if (ofHandle) {
            const KEY_HANDLE_TAGS_INFORMATION tags{key->HandleTags()};
            writer.Fixed(&tags, sizeof(tags));
        } else {
            write(key->Node(), writer);
        }
        return writer.Finish();
    });
}

NTSTATUS EnumerateKey(const CallerMemory& memory, HANDLE handle, ULONG index,
                      KEY_INFORMATION_CLASS informationClass, PVOID information, ULONG length,
                      PULONG resultLength) {
    const WriteKey write = WriterOf(informationClass, true);
    if (write == nullptr) return STATUS_INVALID_PARAMETER;
    ObjectRef<KeyObject> key;
    const NTSTATUS status =
        ReferenceHandle(handle, KEY_ENUMERATE_SUB_KEYS, kKeyType, memory.Mode(), key);
    if (!NT_SUCCESS(status)) return status;

    REG_ENUMERATE_KEY_INFORMATION call{};
    call.Index = index;
    call.KeyInformationClass = informationClass;
    call.KeyInformation = information;
    call.Length = length;
    call.ResultLength = resultLength;
    return NotifyAround(RegNtPreEnumerateKey, RegNtPostEnumerateKey, *key, call, [&]() -> NTSTATUS {
        const std::shared_lock guard(RegistryTree().lock);
        if (key->Node().IsDeleted()) return STATUS_KEY_DELETED;
        const KeyNode* subkey = key->Node().SubkeyAt(index);
        if (subkey == nullptr) return STATUS_NO_MORE_ENTRIES;
        InformationWriter writer(memory, information, length, resultLength);
        write(*subkey, writer);
        return writer.Finish();
    });
}

}  // namespace platform
