// Setting, deleting, querying and enumerating values.
#include "platform/kernel/information_writer.h"
#include "platform/kernel/key_calls.h"
#include "platform/kernel/key_lookup.h"
#include "platform/kernel/registry_callbacks.h"

#include <mutex>
#include <shared_mutex>
#include <vector>

namespace platform {
namespace {

/// The form of the partial information whose data is aligned; it has no title index.
struct PartialInformationAlign64 {
    ULONG type;
    ULONG dataLength;
};

constexpr ULONG AlignUp(ULONG offset, ULONG alignment) {
    return (offset + alignment - 1) / alignment * alignment;
}

void WriteBasic(const KeyValue& value, InformationWriter& writer) {
    KEY_VALUE_BASIC_INFORMATION fixed{};
    fixed.Type = value.type;
    fixed.NameLength = ByteLength(value.name);
    writer.Fixed(&fixed, offsetof(KEY_VALUE_BASIC_INFORMATION, Name));
    writer.Variable(offsetof(KEY_VALUE_BASIC_INFORMATION, Name), value.name);
}

/// The data follow the name at the next multiple of `DataAlignment`.
template <ULONG DataAlignment>
void WriteFull(const KeyValue& value, InformationWriter& writer) {
    constexpr ULONG kNameOffset = offsetof(KEY_VALUE_FULL_INFORMATION, Name);
    KEY_VALUE_FULL_INFORMATION fixed{};
    fixed.Type = value.type;
    fixed.NameLength = ByteLength(value.name);
    fixed.DataLength = static_cast<ULONG>(value.data.size());
    fixed.DataOffset =
        value.data.empty() ? kNoOffset : AlignUp(kNameOffset + fixed.NameLength, DataAlignment);
    writer.Fixed(&fixed, kNameOffset);
    writer.Variable(kNameOffset, value.name);
    if (!value.data.empty()) {
        writer.Variable(fixed.DataOffset, value.data.data(), value.data.size());
    }
}

void WritePartial(const KeyValue& value, InformationWriter& writer) {
    constexpr ULONG kDataOffset = offsetof(KEY_VALUE_PARTIAL_INFORMATION, Data);
    KEY_VALUE_PARTIAL_INFORMATION fixed{};
    fixed.Type = value.type;
    fixed.DataLength = static_cast<ULONG>(value.data.size());
    writer.Fixed(&fixed, kDataOffset);
    writer.Variable(kDataOffset, value.data.data(), value.data.size());
}

void WritePartialAlign64(const KeyValue& value, InformationWriter& writer) {
    const PartialInformationAlign64 fixed{value.type, static_cast<ULONG>(value.data.size())};
    writer.Fixed(&fixed, sizeof(fixed));
    writer.Variable(sizeof(fixed), value.data.data(), value.data.size());
}

using WriteValue = void (*)(const KeyValue& value, InformationWriter& writer);

/// Null for a class that cannot be asked for.
WriteValue WriterOf(KEY_VALUE_INFORMATION_CLASS informationClass) {
    switch (informationClass) {
        case KeyValueBasicInformation:
            return WriteBasic;
        case KeyValueFullInformation:
            return WriteFull<sizeof(ULONG)>;
        case KeyValuePartialInformation:
            return WritePartial;
        case KeyValueFullInformationAlign64:
            return WriteFull<sizeof(ULONGLONG)>;
        case KeyValuePartialInformationAlign64:
            return WritePartialAlign64;
        default:
            return nullptr;
    }
}

/// The key that the handle stands for and the value's name: what the calls on one value begin with.
struct NamedValueCall {
    ObjectRef<KeyObject> key;
    CapturedString name;

    NTSTATUS Begin(const CallerMemory& memory, HANDLE handle, ACCESS_MASK needed,
                   PUNICODE_STRING valueName) {
        const NTSTATUS status = ReferenceHandle(handle, needed, kKeyType, memory.Mode(), key);
        if (!NT_SUCCESS(status)) return status;
        const NTSTATUS captured = name.Capture(memory, valueName);
        name.TrimNulls();
        return captured;
    }
};

NTSTATUS StoreValue(const CallerMemory& memory, KeyNode& key, std::u16string_view name, ULONG type,
                    const void* data, ULONG dataSize) {
    std::vector<std::byte> bytes(dataSize);
    if (!memory.Copy(bytes.data(), data, dataSize)) return STATUS_ACCESS_VIOLATION;
    const std::unique_lock guard(RegistryTree().lock);
    if (key.IsDeleted()) return STATUS_KEY_DELETED;
    const bool isTarget = type == REG_LINK && EqualIgnoringCase(name, kLinkValueName);
    if (key.IsLink() && !isTarget) return STATUS_ACCESS_DENIED;
    key.SetValue(name, type, std::move(bytes));
    return STATUS_SUCCESS;
}

}  // namespace

NTSTATUS SetValueKey(const CallerMemory& memory, HANDLE handle, PUNICODE_STRING valueName,
                     ULONG titleIndex, ULONG type, PVOID data, ULONG dataSize) {
    NamedValueCall value;
    const NTSTATUS status = value.Begin(memory, handle, KEY_SET_VALUE, valueName);
    if (!NT_SUCCESS(status)) return status;
    const std::u16string_view name = value.name.Text();
    if (name.size() > kMaxValueNameCharacters) return STATUS_INVALID_PARAMETER;

    REG_SET_VALUE_KEY_INFORMATION call{};
    call.ValueName = value.name.Descriptor();
    call.TitleIndex = titleIndex;
    call.Type = type;
    call.Data = data;
    call.DataSize = dataSize;
    return NotifyAround(RegNtPreSetValueKey, RegNtPostSetValueKey, *value.key, call, [&] {
        return StoreValue(memory, value.key->Node(), name, type, data, dataSize);
    });
}

NTSTATUS DeleteValueKey(const CallerMemory& memory, HANDLE handle, PUNICODE_STRING valueName) {
    NamedValueCall value;
    const NTSTATUS status = value.Begin(memory, handle, KEY_SET_VALUE, valueName);
    if (!NT_SUCCESS(status)) return status;
    const std::u16string_view name = value.name.Text();

    REG_DELETE_VALUE_KEY_INFORMATION call{};
    call.ValueName = value.name.Descriptor();
    return NotifyAround(
        RegNtPreDeleteValueKey, RegNtPostDeleteValueKey, *value.key, call, [&]() -> NTSTATUS {
            const std::unique_lock guard(RegistryTree().lock);
            if (value.key->Node().IsDeleted()) return STATUS_KEY_DELETED;
            return value.key->Node().DeleteValue(name) ? STATUS_SUCCESS
                                                       : STATUS_OBJECT_NAME_NOT_FOUND;
        });
}

NTSTATUS QueryValueKey(const CallerMemory& memory, HANDLE handle, PUNICODE_STRING valueName,
                       KEY_VALUE_INFORMATION_CLASS informationClass, PVOID information,
                       ULONG length, PULONG resultLength) {
    const WriteValue write = WriterOf(informationClass);
    if (write == nullptr) return STATUS_INVALID_PARAMETER;
    NamedValueCall value;
    const NTSTATUS status = value.Begin(memory, handle, KEY_QUERY_VALUE, valueName);
    if (!NT_SUCCESS(status)) return status;
    const std::u16string_view name = value.name.Text();

    REG_QUERY_VALUE_KEY_INFORMATION call{};
    call.ValueName = value.name.Descriptor();
    call.KeyValueInformationClass = informationClass;
    call.KeyValueInformation = information;
    call.Length = length;
    call.ResultLength = resultLength;
    return NotifyAround(RegNtPreQueryValueKey, RegNtPostQueryValueKey, *value.key, call,
                        [&]() -> NTSTATUS {
                            const std::shared_lock guard(RegistryTree().lock);
                            if (value.key->Node().IsDeleted()) return STATUS_KEY_DELETED;
                            const KeyValue* found = value.key->Node().FindValue(name);
                            if (found == nullptr) return STATUS_OBJECT_NAME_NOT_FOUND;
                            InformationWriter writer(memory, information, length, resultLength);
                            write(*found, writer);
                            return writer.Finish();
                        });
}

NTSTATUS EnumerateValueKey(const CallerMemory& memory, HANDLE handle, ULONG index,
                           KEY_VALUE_INFORMATION_CLASS informationClass, PVOID information,
                           ULONG length, PULONG resultLength) {
    const WriteValue write = WriterOf(informationClass);
    if (write == nullptr) return STATUS_INVALID_PARAMETER;
    ObjectRef<KeyObject> key;
    const NTSTATUS status = ReferenceHandle(handle, KEY_QUERY_VALUE, kKeyType, memory.Mode(), key);
    if (!NT_SUCCESS(status)) return status;

    REG_ENUMERATE_VALUE_KEY_INFORMATION call{};
    call.Index = index;
    call.KeyValueInformationClass = informationClass;
    call.KeyValueInformation = information;
    call.Length = length;
    call.ResultLength = resultLength;
    return NotifyAround(RegNtPreEnumerateValueKey, RegNtPostEnumerateValueKey, *key, call,
                        [&]() -> NTSTATUS {
                            const std::shared_lock guard(RegistryTree().lock);
                            if (key->Node().IsDeleted()) return STATUS_KEY_DELETED;
                            const KeyValue* found = key->Node().ValueAt(index);
                            if (found == nullptr) return STATUS_NO_MORE_ENTRIES;
                            InformationWriter writer(memory, information, length, resultLength);
                            write(*found, writer);
                            return writer.Finish();
                        });
}

}  // namespace platform
