// The security of objects: system calls, and what the kernel exports for drivers.
#include "platform/kernel/fault_injection.h"
#include "platform/kernel/key_object.h"
#include "platform/kernel/key_security.h"
#include "platform/kernel/pool.h"
#include "platform/kernel/system_call.h"

#include <cstring>
#include <shared_mutex>

using namespace platform;

namespace {

constexpr std::uint32_t kDescriptorTag = MakeTag("ObSd");

/// The key behind the handle, and what the handle may be used for. Other objects have no security
/// here.
NTSTATUS ReferenceSecured(const CallerMemory& memory, HANDLE handle, ObjectRef<KeyObject>& key,
                          ACCESS_MASK& granted) {
    const NTSTATUS status = ReferenceHandle(handle, 0, kKeyType, memory.Mode(), key, &granted);
    return status == STATUS_OBJECT_TYPE_MISMATCH ? STATUS_NOT_SUPPORTED : status;
}

NTSTATUS QuerySecurity(const CallerMemory& memory, HANDLE handle, SECURITY_INFORMATION what,
                       PSECURITY_DESCRIPTOR descriptor, ULONG length, PULONG lengthNeeded) {
    ObjectRef<KeyObject> key;
    ACCESS_MASK granted = 0;
    const NTSTATUS status = ReferenceSecured(memory, handle, key, granted);
    if (!NT_SUCCESS(status)) return status;
    return QueryKeySecurity(memory, *key, granted, what, descriptor, length, lengthNeeded);
}

NTSTATUS SetSecurity(const CallerMemory& memory, HANDLE handle, SECURITY_INFORMATION what,
                     PSECURITY_DESCRIPTOR descriptor) {
    ObjectRef<KeyObject> key;
    ACCESS_MASK granted = 0;
    const NTSTATUS status = ReferenceSecured(memory, handle, key, granted);
    if (!NT_SUCCESS(status)) return status;
    return SetKeySecurity(memory, *key, granted, what, descriptor);
}

KeySecurityRef SecurityOf(KeyObject& key) {
    const std::shared_lock guard(RegistryTree().lock);
    return key.Node().IsDeleted() ? nullptr : key.Node().Security();
}

}  // namespace

NTSTATUS NTAPI NtQuerySecurityObject(HANDLE handle, SECURITY_INFORMATION securityInformation,
                                     PSECURITY_DESCRIPTOR securityDescriptor, ULONG length,
                                     PULONG lengthNeeded) {
    return FromUser("NtQuerySecurityObject", [&](const CallerMemory& memory) {
        return QuerySecurity(memory, handle, securityInformation, securityDescriptor, length,
                             lengthNeeded);
    });
}

NTSTATUS NTAPI ZwQuerySecurityObject(HANDLE handle, SECURITY_INFORMATION securityInformation,
                                     PSECURITY_DESCRIPTOR securityDescriptor, ULONG length,
                                     PULONG lengthNeeded) {
    return FromKernel("ZwQuerySecurityObject", [&](const CallerMemory& memory) {
        return QuerySecurity(memory, handle, securityInformation, securityDescriptor, length,
                             lengthNeeded);
    });
}

NTSTATUS NTAPI NtSetSecurityObject(HANDLE handle, SECURITY_INFORMATION securityInformation,
                                   PSECURITY_DESCRIPTOR securityDescriptor) {
    return FromUser("NtSetSecurityObject", [&](const CallerMemory& memory) {
        return SetSecurity(memory, handle, securityInformation, securityDescriptor);
    });
}

NTSTATUS NTAPI ZwSetSecurityObject(HANDLE handle, SECURITY_INFORMATION securityInformation,
                                   PSECURITY_DESCRIPTOR securityDescriptor) {
    return FromKernel("ZwSetSecurityObject", [&](const CallerMemory& memory) {
        return SetSecurity(memory, handle, securityInformation, securityDescriptor);
    });
}

NTSTATUS NTAPI ObGetObjectSecurity(PVOID object, PSECURITY_DESCRIPTOR* securityDescriptor,
                                   PBOOLEAN memoryAllocated) {
    RequireIrql("ObGetObjectSecurity", PASSIVE_LEVEL);
    *securityDescriptor = nullptr;
    *memoryAllocated = FALSE;
    if (const auto fault = FailThisCall("ObGetObjectSecurity")) return *fault;
    if (TypeOf(object) != &kKeyType) {
        Violation(Rule::kNotOffered, "ObGetObjectSecurity is offered for keys only", object);
    }
    const KeySecurityRef security = SecurityOf(*static_cast<KeyObject*>(object));
    if (security == nullptr) return STATUS_KEY_DELETED;
    const SecurityBytes& bytes = security->Descriptor().bytes;
    void* copy = AllocatePool(PagedPool, bytes.size(), kDescriptorTag);
    if (copy == nullptr) return STATUS_INSUFFICIENT_RESOURCES;
    std::memcpy(copy, bytes.data(), bytes.size());
    *securityDescriptor = copy;
    *memoryAllocated = TRUE;
    return STATUS_SUCCESS;
}

void NTAPI ObReleaseObjectSecurity(PSECURITY_DESCRIPTOR securityDescriptor,
                                   BOOLEAN memoryAllocated) {
    RequireIrql("ObReleaseObjectSecurity", PASSIVE_LEVEL);
    if (securityDescriptor == nullptr) return;
    if (memoryAllocated == FALSE) {
        Violation(Rule::kCallbackContract,
                  "ObReleaseObjectSecurity: the descriptor's memory was allocated",
                  securityDescriptor, kDescriptorTag);
    }
    FreePool("ObReleaseObjectSecurity", securityDescriptor, kDescriptorTag);
}
