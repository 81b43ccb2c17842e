// Routines on objects and handles that the kernel exports, and the types of objects it exports.
#include "platform/kernel/caller_memory.h"
#include "platform/kernel/fault_injection.h"
#include "platform/kernel/handle_table.h"
#include "platform/kernel/io.h"
#include "platform/kernel/process_table.h"
#include "platform/kernel/syscalls.h"
#include "platform/kernel/verifier.h"

using namespace platform;

namespace {

const ObjectType* TypeFrom(POBJECT_TYPE type) {
    return reinterpret_cast<const ObjectType*>(type);
}

POBJECT_TYPE Exported(const ObjectType& type) {
    return reinterpret_cast<POBJECT_TYPE>(const_cast<ObjectType*>(&type));
}

POBJECT_TYPE fileType = Exported(kFileType);
POBJECT_TYPE processType = Exported(kProcessType);

constexpr ULONG kDuplicateCloseSource = 1;
constexpr ULONG kDuplicateSameAccess = 2;

/// The process that an argument of NtDuplicateObject names by its id; -1 is the current one.
ObjectRef<Process> NamedProcess(HANDLE process) {
    const auto id = reinterpret_cast<std::intptr_t>(process);
    if (id == -1) return ObjectRef<Process>(&CurrentProcess());
    return FindProcess(static_cast<std::uintptr_t>(id));
}

/// Opens the handle in the target process and closes it there again when the caller cannot be told.
NTSTATUS OpenDuplicate(void* body, ACCESS_MASK access, HANDLE targetProcess, PHANDLE targetHandle) {
    const ObjectRef<Process> target = NamedProcess(targetProcess);
    if (!target) return STATUS_INVALID_HANDLE;
    HANDLE duplicate = nullptr;
    const NTSTATUS status = target->Handles().Insert(body, access, &duplicate);
    if (!NT_SUCCESS(status)) return status;
    if (!CallerMemory(UserMode).Store(targetHandle, duplicate)) {
        const ThreadScope inTarget(*target);
        CloseHandle(duplicate, UserMode);
        return STATUS_ACCESS_VIOLATION;
    }
    return STATUS_SUCCESS;
}

NTSTATUS Duplicate(Process& source, HANDLE sourceHandle, HANDLE targetProcess, PHANDLE targetHandle,
                   ACCESS_MASK desiredAccess, ULONG options) {
    ACCESS_MASK granted = 0;
    void* body = source.Handles().Reference(sourceHandle, &granted);
    if (body == nullptr) return STATUS_INVALID_HANDLE;
    const bool sameAccess = (options & kDuplicateSameAccess) != 0;
    const ACCESS_MASK access = sameAccess ? granted : MapAccess(desiredAccess, *TypeOf(body));
    NTSTATUS status = STATUS_SUCCESS;
    if ((access & ~granted) != 0) {
        status = STATUS_ACCESS_DENIED;
    } else if (targetHandle != nullptr) {
        status = OpenDuplicate(body, access, targetProcess, targetHandle);
    }
    DereferenceObject(body);
    return status;
}

}  // namespace

POBJECT_TYPE* IoFileObjectType = &fileType;
POBJECT_TYPE* PsProcessType = &processType;

LONG_PTR NTAPI ObfReferenceObject(PVOID object) {
    RequireIrql("ObfReferenceObject", DISPATCH_LEVEL);
    return ReferenceObject(object);
}

LONG_PTR NTAPI ObfDereferenceObject(PVOID object) {
    RequireIrql("ObfDereferenceObject", DISPATCH_LEVEL);
    return DereferenceObject(object);
}

NTSTATUS NTAPI ObReferenceObjectByHandle(HANDLE handle, ACCESS_MASK desiredAccess,
                                         POBJECT_TYPE type, KPROCESSOR_MODE accessMode,
                                         PVOID* object, POBJECT_HANDLE_INFORMATION information) {
    RequireIrql("ObReferenceObjectByHandle", PASSIVE_LEVEL);
    *object = nullptr;
    if (const auto fault = FailThisCall("ObReferenceObjectByHandle")) return *fault;
    ACCESS_MASK granted = 0;
    const NTSTATUS status =
        ReferenceHandle(handle, desiredAccess, TypeFrom(type), accessMode, object, &granted);
    if (NT_SUCCESS(status) && information != nullptr) *information = {0, granted};
    return status;
}

NTSTATUS NTAPI ObOpenObjectByPointer(PVOID object, ULONG attributes, PVOID,
                                     ACCESS_MASK desiredAccess, POBJECT_TYPE type,
                                     KPROCESSOR_MODE accessMode, PHANDLE handle) {
    RequireIrql("ObOpenObjectByPointer", PASSIVE_LEVEL);
    if (const auto fault = FailThisCall("ObOpenObjectByPointer")) return *fault;
    const ObjectType& actual = *TypeOf(object);
    // Without a type the caller's mode must be the kernel's: user mode could open anything.
    const bool typeFits = type == nullptr ? accessMode == KernelMode : TypeFrom(type) == &actual;
    if (!typeFits) return STATUS_OBJECT_TYPE_MISMATCH;
    return CreateHandle(object, MapAccess(desiredAccess, actual), attributes, handle);
}

BOOLEAN NTAPI ObIsKernelHandle(HANDLE handle) {
    RequireIrql("ObIsKernelHandle", DISPATCH_LEVEL);
    return IsKernelHandle(handle) ? TRUE : FALSE;
}

NTSTATUS NTAPI ZwClose(HANDLE handle) {
    RequireIrql("ZwClose", PASSIVE_LEVEL);
    return CloseHandle(handle, KernelMode);
}

NTSTATUS NTAPI NtClose(HANDLE handle) {
    const UserModeCall call("NtClose");
    return CloseHandle(handle, UserMode);
}

NTSTATUS NTAPI NtDuplicateObject(HANDLE sourceProcess, HANDLE sourceHandle, HANDLE targetProcess,
                                 PHANDLE targetHandle, ACCESS_MASK desiredAccess, ULONG,
                                 ULONG options) {
    const UserModeCall call("NtDuplicateObject");
    const ObjectRef<Process> source = NamedProcess(sourceProcess);
    if (!source || IsKernelHandle(sourceHandle)) return STATUS_INVALID_HANDLE;
    const NTSTATUS status =
        Duplicate(*source, sourceHandle, targetProcess, targetHandle, desiredAccess, options);
    if ((options & kDuplicateCloseSource) != 0) {
        const ThreadScope inSource(*source);
        CloseHandle(sourceHandle, UserMode);
    }
    return status;
}
