// The query of several values in one call.
#include "platform/kernel/key_calls.h"
#include "platform/kernel/registry_callbacks.h"

#include <deque>
#include <shared_mutex>

namespace platform {

namespace {

constexpr ULONG kMostEntries = 0x10000;

ULONGLONG AlignUp(ULONGLONG offset) {
    return (offset + sizeof(ULONG) - 1) / sizeof(ULONG) * sizeof(ULONG);
}

/// The caller's arguments. Lengths are 64 bits wide here: the sum of all data may be.
struct MultipleQuery {
    PKEY_VALUE_ENTRY entries;
    std::deque<CapturedString> names;
    PVOID buffer;
    ULONGLONG room = 0;
    ULONGLONG used = 0;
    ULONGLONG required = 0;

    NTSTATUS Capture(const CallerMemory& memory, ULONG entryCount, const ULONG* bufferLength);
    NTSTATUS Answer(const CallerMemory& memory, const KeyNode& key);
    NTSTATUS AnswerOne(const CallerMemory& memory, const KeyValue& value, KEY_VALUE_ENTRY& entry);
};

NTSTATUS MultipleQuery::Capture(const CallerMemory& memory, ULONG entryCount,
                                const ULONG* bufferLength) {
    if (entryCount > kMostEntries) return STATUS_INSUFFICIENT_RESOURCES;
    ULONG length = 0;
    if (!memory.Load(length, bufferLength)) return STATUS_ACCESS_VIOLATION;
    room = length;
    for (ULONG index = 0; index < entryCount; ++index) {
        KEY_VALUE_ENTRY entry;
        if (!memory.Load(entry, entries + index)) return STATUS_ACCESS_VIOLATION;
        CapturedString& name = names.emplace_back();
        const NTSTATUS status = name.Capture(memory, entry.ValueName);
        if (!NT_SUCCESS(status)) return status;
        name.TrimNulls();
    }
    return STATUS_SUCCESS;
}

/// Puts the value into the buffer. Only this entry's answer is written: its name is the caller's.
NTSTATUS MultipleQuery::AnswerOne(const CallerMemory& memory, const KeyValue& value,
                                  KEY_VALUE_ENTRY& entry) {
    const auto size = static_cast<ULONG>(value.data.size());
    const auto offset = static_cast<ULONG>(AlignUp(used));
    const bool written =
        memory.Copy(static_cast<std::byte*>(buffer) + offset, value.data.data(), size) &&
        memory.Store(&entry.DataLength, size) && memory.Store(&entry.DataOffset, offset) &&
        memory.Store(&entry.Type, value.type);
    used = ULONGLONG{offset} + size;
    return written ? STATUS_SUCCESS : STATUS_ACCESS_VIOLATION;
}

NTSTATUS MultipleQuery::Answer(const CallerMemory& memory, const KeyNode& key) {
    NTSTATUS status = STATUS_SUCCESS;
    for (std::size_t index = 0; index < names.size(); ++index) {
        const KeyValue* value = key.FindValue(names[index].Text());
        if (value == nullptr) return STATUS_OBJECT_NAME_NOT_FOUND;
        required = AlignUp(required) + value->data.size();
        // Once one does not fit the rest only adds to what is required.
        if (required > room) status = STATUS_BUFFER_OVERFLOW;
        if (status == STATUS_SUCCESS) status = AnswerOne(memory, *value, entries[index]);
        if (status == STATUS_ACCESS_VIOLATION) return status;
    }
    return status;
}

}  // namespace

NTSTATUS QueryMultipleValueKey(const CallerMemory& memory, HANDLE handle, PKEY_VALUE_ENTRY entries,
                               ULONG entryCount, PVOID buffer, PULONG bufferLength,
                               PULONG requiredLength) {
    ObjectRef<KeyObject> key;
    NTSTATUS status = ReferenceHandle(handle, KEY_QUERY_VALUE, kKeyType, memory.Mode(), key);
    if (!NT_SUCCESS(status)) return status;
    MultipleQuery query{.entries = entries, .names = {}, .buffer = buffer};
    status = query.Capture(memory, entryCount, bufferLength);
    if (!NT_SUCCESS(status)) return status;

    REG_QUERY_MULTIPLE_VALUE_KEY_INFORMATION call{};
    call.ValueEntries = entries;
    call.EntryCount = entryCount;
    call.ValueBuffer = buffer;
    call.BufferLength = bufferLength;
    call.RequiredBufferLength = requiredLength;
    return NotifyAround(RegNtPreQueryMultipleValueKey, RegNtPostQueryMultipleValueKey, *key, call,
                        [&]() -> NTSTATUS {
                            NTSTATUS answered = STATUS_KEY_DELETED;
                            {
                                const std::shared_lock guard(RegistryTree().lock);
                                if (!key->Node().IsDeleted())
                                    answered = query.Answer(memory, key->Node());
                            }
                            if (!NT_SUCCESS(answered) && answered != STATUS_BUFFER_OVERFLOW)
                                return answered;
                            const bool told =
                                memory.Store(bufferLength, static_cast<ULONG>(query.used)) &&
                                (requiredLength == nullptr ||
                                 memory.Store(requiredLength, static_cast<ULONG>(query.required)));
                            return told ? answered : STATUS_ACCESS_VIOLATION;
                        });
}

}  // namespace platform
