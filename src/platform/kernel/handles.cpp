// Handles of the current process and of the kernel: which table a handle is looked up in, and how
// it is closed.
#include "platform/kernel/handle_table.h"
#include "platform/kernel/process.h"
#include "platform/kernel/verifier.h"

namespace platform {

namespace {

/// Stand for the current process and thread wherever a handle is expected.
const HANDLE kCurrentProcessHandle = reinterpret_cast<HANDLE>(std::intptr_t{-1});
const HANDLE kCurrentThreadHandle = reinterpret_cast<HANDLE>(std::intptr_t{-2});

/// The object behind the handle, referenced; null when there is none for this mode.
void* Resolve(HANDLE handle, KPROCESSOR_MODE mode, ACCESS_MASK* granted) {
    if (handle == kCurrentProcessHandle || handle == kCurrentThreadHandle) {
        void* body = handle == kCurrentProcessHandle ? static_cast<void*>(&CurrentProcess())
                                                     : static_cast<void*>(&CurrentThread());
        *granted = TypeOf(body)->validAccess;
        ReferenceObject(body);
        return body;
    }
    if (!IsKernelHandle(handle)) return CurrentProcess().Handles().Reference(handle, granted);
    return mode == KernelMode ? KernelHandles().Reference(handle, granted) : nullptr;
}

struct Removal {
    HandleTable& table;
    HANDLE handle;
    void* body;
    std::optional<HandleTable::Removed> removed;

    static void Run(void* self) {
        auto& removal = *static_cast<Removal*>(self);
        removal.removed = removal.table.Remove(removal.handle, removal.body);
    }
};

NTSTATUS CloseIn(HandleTable& table, Process* owner, HANDLE handle) {
    ACCESS_MASK granted = 0;
    void* body = table.Reference(handle, &granted);
    if (body == nullptr) return STATUS_INVALID_HANDLE;
    const ObjectType& type = *TypeOf(body);
    Removal removal{table, handle, body, std::nullopt};
    if (type.closing != nullptr) {
        type.closing(body, &Removal::Run, &removal);
    } else {
        Removal::Run(&removal);
    }
    NTSTATUS status = STATUS_INVALID_HANDLE;  // another thread has closed it in the meantime
    if (removal.removed) {
        if (type.close != nullptr) {
            type.close(body, owner, removal.removed->lastOfTable, removal.removed->lastOfAll);
        }
        DereferenceObject(body);
        status = STATUS_SUCCESS;
    }
    DereferenceObject(body);
    return status;
}

bool IsOfType(HandleTable& table, HANDLE handle, const ObjectType* type) {
    ACCESS_MASK granted = 0;
    void* body = table.Reference(handle, &granted);
    if (body == nullptr) return false;
    const bool isOfType = TypeOf(body) == type;
    DereferenceObject(body);
    return isOfType;
}

void CloseTable(HandleTable& table, Process* owner, const ObjectType* spared) {
    for (HANDLE handle : table.OpenHandles()) {
        if (spared != nullptr && IsOfType(table, handle, spared)) continue;
        CloseIn(table, owner, handle);
    }
}

}  // namespace

bool IsKernelHandle(HANDLE handle) {
    return reinterpret_cast<std::intptr_t>(handle) < 0 && handle != kCurrentProcessHandle &&
           handle != kCurrentThreadHandle;
}

NTSTATUS CreateHandle(void* body, ACCESS_MASK granted, ULONG attributes, HANDLE* handle) {
    HandleTable& table =
        (attributes & OBJ_KERNEL_HANDLE) != 0 ? KernelHandles() : CurrentProcess().Handles();
    return table.Insert(body, granted, handle);
}

NTSTATUS ReferenceHandle(HANDLE handle, ACCESS_MASK desired, const ObjectType* type,
                         KPROCESSOR_MODE mode, void** body, ACCESS_MASK* granted) {
    ACCESS_MASK has = 0;
    void* object = Resolve(handle, mode, &has);
    if (object == nullptr) return STATUS_INVALID_HANDLE;
    NTSTATUS status = STATUS_SUCCESS;
    if (type != nullptr && TypeOf(object) != type) {
        status = STATUS_OBJECT_TYPE_MISMATCH;
    } else if (mode != KernelMode && (desired & ~has) != 0) {
        status = STATUS_ACCESS_DENIED;
    }
    if (!NT_SUCCESS(status)) {
        DereferenceObject(object);
        return status;
    }
    *body = object;
    if (granted != nullptr) *granted = has;
    return STATUS_SUCCESS;
}

NTSTATUS CloseHandle(HANDLE handle, KPROCESSOR_MODE mode) {
    if (!IsKernelHandle(handle)) {
        Process& owner = CurrentProcess();
        return CloseIn(owner.Handles(), &owner, handle);
    }
    if (mode != KernelMode) return STATUS_INVALID_HANDLE;
    const NTSTATUS status = CloseIn(KernelHandles(), nullptr, handle);
    if (status == STATUS_INVALID_HANDLE && VerifierEnabled()) {
        Violation(Rule::kHandleInvalid, "ZwClose: the kernel has no such handle open", handle);
    }
    return status;
}

void CloseAllHandles(Process& process, const ObjectType* spared) {
    CloseTable(process.Handles(), &process, spared);
}

void CloseKernelHandles(const ObjectType* spared) {
    CloseTable(KernelHandles(), nullptr, spared);
}

}  // namespace platform
