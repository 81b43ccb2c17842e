// Asking for an object's name: the system call, and what the kernel exports for drivers.
//
// A system call on a key is a registry operation that callbacks are told of; ObQueryNameString,
// which drivers call inside callbacks, is none.
#include "platform/kernel/key_object.h"
#include "platform/kernel/registry_callbacks.h"
#include "platform/kernel/system_call.h"

using namespace platform;

namespace {

/// Writes the object's name, or one of no length. `returnLength` may be null.
NTSTATUS WriteObjectName(const CallerMemory& memory, void* object,
                         POBJECT_NAME_INFORMATION information, ULONG length, PULONG returnLength) {
    std::u16string name;
    const bool named = QueryObjectName(object, name);
    const std::size_t bytes = name.size() * sizeof(WCHAR);
    if (bytes + sizeof(WCHAR) > 0xFFFF) return STATUS_NAME_TOO_LONG;
    const auto needed =
        static_cast<ULONG>(sizeof(OBJECT_NAME_INFORMATION) + (named ? bytes + sizeof(WCHAR) : 0));
    if (returnLength != nullptr && !memory.Store(returnLength, needed)) {
        return STATUS_ACCESS_VIOLATION;
    }
    if (length < needed) return STATUS_INFO_LENGTH_MISMATCH;
    OBJECT_NAME_INFORMATION header{};
    auto* characters = reinterpret_cast<PWSTR>(information + 1);
    if (named) {
        header.Name = {static_cast<USHORT>(bytes), static_cast<USHORT>(bytes + sizeof(WCHAR)),
                       characters};
    }
    const bool written =
        memory.Store(information, header) &&
        memory.Copy(characters, name.c_str(), needed - sizeof(OBJECT_NAME_INFORMATION));
    return written ? STATUS_SUCCESS : STATUS_ACCESS_VIOLATION;
}

NTSTATUS QueryName(const CallerMemory& memory, HANDLE handle,
                   OBJECT_INFORMATION_CLASS informationClass, PVOID information, ULONG length,
                   PULONG returnLength) {
    if (informationClass != ObjectNameInformation) return STATUS_INVALID_INFO_CLASS;
    void* body = nullptr;
    const NTSTATUS status = ReferenceHandle(handle, 0, nullptr, memory.Mode(), &body);
    if (!NT_SUCCESS(status)) return status;
    const auto object = ObjectRef<std::byte>::Adopt(static_cast<std::byte*>(body));
    auto* name = static_cast<POBJECT_NAME_INFORMATION>(information);
    const auto write = [&] { return WriteObjectName(memory, body, name, length, returnLength); };
    if (TypeOf(body) != &kKeyType) return write();
    REG_QUERY_KEY_NAME call{};
    call.ObjectNameInfo = name;
    call.Length = length;
    call.ReturnLength = returnLength;
    return NotifyAround(RegNtPreQueryKeyName, RegNtPostQueryKeyName, *static_cast<KeyObject*>(body),
                        call, write);
}

}  // namespace

NTSTATUS NTAPI ObQueryNameString(PVOID object, POBJECT_NAME_INFORMATION information, ULONG length,
                                 PULONG returnLength) {
    RequireIrql("ObQueryNameString", PASSIVE_LEVEL);
    if (const auto fault = FailThisCall("ObQueryNameString")) return *fault;
    return WriteObjectName(CallerMemory(KernelMode), object, information, length, returnLength);
}

NTSTATUS NTAPI NtQueryObject(HANDLE handle, OBJECT_INFORMATION_CLASS informationClass,
                             PVOID information, ULONG length, PULONG returnLength) {
    return FromUser("NtQueryObject", [&](const CallerMemory& memory) {
        return QueryName(memory, handle, informationClass, information, length, returnLength);
    });
}

NTSTATUS NTAPI ZwQueryObject(HANDLE handle, OBJECT_INFORMATION_CLASS informationClass,
                             PVOID information, ULONG length, PULONG returnLength) {
    return FromKernel("ZwQueryObject", [&](const CallerMemory& memory) {
        return QueryName(memory, handle, informationClass, information, length, returnLength);
    });
}
