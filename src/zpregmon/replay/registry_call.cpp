#include "zpregmon/replay/registry_call.h"

#include "platform/kernel/io.h"
#include "zpregmon/replay/query_answer.h"

#include <algorithm>
#include <cstring>

namespace zpregmon {

namespace {

/// Room for every answer that is not to be cut, and for the longest data to set.
constexpr std::size_t kBufferSize = 1 << 20;

/// What the recorded system library put in, or what says which process is asking.
constexpr ULONG kAttributesLeftOut = OBJ_OPENIF | OBJ_KERNEL_HANDLE;
/// The calling side has resolved these already; given again, paths would be redirected twice.
constexpr ACCESS_MASK kAccessLeftOut = KEY_WOW64_64KEY | KEY_WOW64_32KEY;

UNICODE_STRING Describe(std::u16string_view text) {
    return platform::Describe(text);
}

Outcome JustStatus(NTSTATUS status) {
    Outcome outcome;
    outcome.status = status;
    return outcome;
}

/// `name` outlives the attributes.
OBJECT_ATTRIBUTES AttributesOf(const Record& record, const ReplayProcess& process,
                               UNICODE_STRING& name) {
    OBJECT_ATTRIBUTES attributes;
    InitializeObjectAttributes(&attributes, &name, record.attributes & ~kAttributesLeftOut,
                               process.Find(record.root), nullptr);
    return attributes;
}

NTSTATUS UnloadKey(const Record& record, const ReplayProcess& process) {
    UNICODE_STRING name = Describe(record.name);
    OBJECT_ATTRIBUTES attributes = AttributesOf(record, process, name);
    return NtUnloadKey(&attributes);
}

NTSTATUS SetSecurity(const Record& record, HANDLE key) {
    return NtSetSecurityObject(key, record.securityInformation,
                               const_cast<std::byte*>(record.bytes.data()));
}

NTSTATUS DeleteValue(const Record& record, HANDLE key) {
    UNICODE_STRING name = Describe(record.name);
    return NtDeleteValueKey(key, &name);
}

NTSTATUS RenameKey(const Record& record, HANDLE key) {
    UNICODE_STRING name = Describe(record.name);
    return NtRenameKey(key, &name);
}

NTSTATUS Close(const Record& record, ReplayProcess& process) {
    const NTSTATUS status = NtClose(process.Find(record.handle));
    if (NT_SUCCESS(status)) {
        process.Forget(record.handle);
    }
    return status;
}

}  // namespace

bool IsCall(Op op) {
    switch (op) {
        case Op::kProcessStart:
        case Op::kProcessExit:
        case Op::kMark:
            return false;
        default:
            return true;
    }
}

RegistryCaller::RegistryCaller(HiveFiles& hives)
    : hives_(hives), buffer_(std::make_unique_for_overwrite<std::byte[]>(kBufferSize)) {}

Outcome RegistryCaller::Call(const Record& record, ReplayProcess& process) {
    const HANDLE key = process.Find(record.handle);
    switch (record.op) {
        case Op::kCreateKey:
        case Op::kOpenKey:
            return OpenOrCreate(record, process);
        case Op::kClose:
            return JustStatus(Close(record, process));
        case Op::kSetValue:
            return JustStatus(SetValue(record, key));
        case Op::kDeleteValue:
            return JustStatus(DeleteValue(record, key));
        case Op::kQueryValue:
            return QueryValue(record, key);
        case Op::kEnumValue:
            return EnumerateValue(record, key);
        case Op::kEnumKey:
        case Op::kQueryKey:
            return QueryKey(record, key);
        case Op::kDeleteKey:
            return JustStatus(NtDeleteKey(key));
        case Op::kFlushKey:
            return JustStatus(NtFlushKey(key));
        case Op::kRenameKey:
            return JustStatus(RenameKey(record, key));
        case Op::kLoadKey:
            return JustStatus(LoadKey(record, process));
        case Op::kUnloadKey:
            return JustStatus(UnloadKey(record, process));
        case Op::kSaveKey:
            return JustStatus(SaveKey(record, key));
        case Op::kSetSecurity:
            return JustStatus(SetSecurity(record, key));
        case Op::kQuerySecurity:
            return JustStatus(QuerySecurity(record, key));
        default:
            return JustStatus(STATUS_NOT_IMPLEMENTED);
    }
}

Outcome RegistryCaller::OpenOrCreate(const Record& record, ReplayProcess& process) {
    UNICODE_STRING name = Describe(record.name);
    OBJECT_ATTRIBUTES attributes = AttributesOf(record, process, name);
    attributes.SecurityDescriptor = const_cast<std::byte*>(record.bytes.data());
    const ACCESS_MASK access = record.access & ~kAccessLeftOut;
    HANDLE handle = nullptr;
    Outcome outcome;
    if (record.op == Op::kCreateKey) {
        UNICODE_STRING className = Describe(record.className);
        outcome.status = NtCreateKey(&handle, access, &attributes, 0,
                                     record.className.empty() ? nullptr : &className,
                                     record.options, &outcome.disposition);
    } else {
        outcome.status = NtOpenKey(&handle, access, &attributes);
    }
    const bool wasOpened = NT_SUCCESS(record.status);
    if (NT_SUCCESS(outcome.status) && wasOpened) {
        process.Map(record.handle, handle);
    } else if (NT_SUCCESS(outcome.status)) {
        NtClose(handle);  // nobody in the recording knows of it
    } else if (wasOpened) {
        process.Forget(record.handle);
    }
    return outcome;
}

NTSTATUS RegistryCaller::LoadKey(const Record& record, const ReplayProcess& process) {
    UNICODE_STRING name = Describe(record.name);
    OBJECT_ATTRIBUTES target = AttributesOf(record, process, name);
    const std::u16string file = hives_.NameOf(record.file);
    UNICODE_STRING fileName = Describe(file);
    OBJECT_ATTRIBUTES source;
    InitializeObjectAttributes(&source, &fileName, OBJ_CASE_INSENSITIVE, nullptr, nullptr);
    return NtLoadKey(&target, &source);
}

NTSTATUS RegistryCaller::SaveKey(const Record& record, HANDLE key) {
    const std::u16string name = hives_.NameOf(record.file);
    UNICODE_STRING fileName = Describe(name);
    OBJECT_ATTRIBUTES attributes;
    InitializeObjectAttributes(&attributes, &fileName, OBJ_CASE_INSENSITIVE, nullptr, nullptr);
    HANDLE file = nullptr;
    IO_STATUS_BLOCK ioStatus = {};
    NTSTATUS status =
        NtCreateFile(&file, GENERIC_READ | GENERIC_WRITE | SYNCHRONIZE, &attributes, &ioStatus,
                     nullptr, 0, 0, FILE_OVERWRITE_IF, FILE_SYNCHRONOUS_IO_NONALERT, nullptr, 0);
    if (NT_SUCCESS(status)) {
        status = NtSaveKey(key, file);
        NtClose(file);
    }
    return status;
}

/// With as much room as the recorded caller had: none if it asked for the size.
NTSTATUS RegistryCaller::QuerySecurity(const Record& record, HANDLE key) {
    ULONG needed = 0;
    return NtQuerySecurityObject(key, record.securityInformation, buffer_.get(),
                                 NT_SUCCESS(record.status) ? ULONG{kBufferSize} : 0, &needed);
}

NTSTATUS RegistryCaller::SetValue(const Record& record, HANDLE key) {
    UNICODE_STRING name = Describe(record.name);
    const std::byte* data = record.bytes.data();
    std::unique_ptr<std::byte[]> filled;
    if (record.dataSize > record.bytes.size()) {
        filled = std::make_unique<std::byte[]>(record.dataSize);
        std::copy(record.bytes.begin(), record.bytes.end(), filled.get());
        data = filled.get();
    }
    return NtSetValueKey(key, &name, 0, record.type, const_cast<std::byte*>(data),
                         static_cast<ULONG>(record.dataSize));
}

/// Where the recorded answer was cut, this one is cut at the same place. Where it was not, there is
/// room for any: the answer need not be the recorded one.
ULONG RegistryCaller::BufferLength(const Record& record, std::size_t fixedPart) const {
    const Answer& answer = record.answer;
    const std::size_t length = answer.got < answer.size ? fixedPart + answer.got : kBufferSize;
    return static_cast<ULONG>(std::min(length, kBufferSize));
}

std::span<const std::byte> RegistryCaller::WholeAnswer(const Outcome& outcome, ULONG length) const {
    return {buffer_.get(), outcome.IsComplete() ? length : 0};
}

Outcome RegistryCaller::QueryValue(const Record& record, HANDLE key) {
    constexpr auto kClass = KeyValuePartialInformation;
    UNICODE_STRING name = Describe(record.name);
    ULONG needed = 0;
    Outcome outcome;
    outcome.status = NtQueryValueKey(key, &name, kClass, buffer_.get(),
                                     BufferLength(record, FixedPart(kClass)), &needed);
    if (outcome.HasAnswer()) {
        outcome.answer = ReadValueAnswer(kClass, buffer_.get(), outcome.IsComplete());
        outcome.bytes = WholeAnswer(outcome, needed);
    }
    return outcome;
}

Outcome RegistryCaller::EnumerateValue(const Record& record, HANDLE key) {
    const auto informationClass = static_cast<KEY_VALUE_INFORMATION_CLASS>(record.informationClass);
    ULONG needed = 0;
    Outcome outcome;
    outcome.status =
        NtEnumerateValueKey(key, record.index, informationClass, buffer_.get(),
                            BufferLength(record, FixedPart(informationClass)), &needed);
    if (outcome.HasAnswer()) {
        outcome.answer = ReadValueAnswer(informationClass, buffer_.get(), outcome.IsComplete());
        outcome.bytes = WholeAnswer(outcome, needed);
    }
    return outcome;
}

/// The key itself, or its subkey by index.
Outcome RegistryCaller::QueryKey(const Record& record, HANDLE key) {
    const auto informationClass = static_cast<KEY_INFORMATION_CLASS>(record.informationClass);
    const ULONG length = BufferLength(record, FixedPart(informationClass));
    ULONG needed = 0;
    Outcome outcome;
    outcome.status =
        record.op == Op::kEnumKey
            ? NtEnumerateKey(key, record.index, informationClass, buffer_.get(), length, &needed)
            : NtQueryKey(key, informationClass, buffer_.get(), length, &needed);
    if (outcome.HasAnswer()) {
        outcome.answer = ReadKeyAnswer(informationClass, buffer_.get(), outcome.IsComplete());
        outcome.bytes = WholeAnswer(outcome, needed);
    }
    return outcome;
}

Outcome RegistryCaller::Duplicate(const Record& record, ReplayProcess& from, ReplayProcess& to) {
    constexpr ULONG kCloseSource = 1;
    const auto id = [](const ReplayProcess& process) {
        return reinterpret_cast<HANDLE>(process.Process().Id());
    };
    HANDLE handle = nullptr;
    const NTSTATUS status = NtDuplicateObject(
        id(from), from.Find(record.handle), id(to), &handle, record.access & ~kAccessLeftOut,
        record.attributes & ~kAttributesLeftOut, record.options);
    if (NT_SUCCESS(status)) {
        to.Map(record.newHandle, handle);
        if ((record.options & kCloseSource) != 0) {
            from.Forget(record.handle);
        }
    } else {
        to.Forget(record.newHandle);
    }
    return JustStatus(status);
}

}  // namespace zpregmon
