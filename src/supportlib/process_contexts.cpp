#include "supportlib/process_contexts.h"

#include "supportlib/driver_entry.h"
#include "supportlib/pool_memory.h"
#include "supportlib/read_section.h"

/// A registration lives until it has ended and its last block is freed.
struct ZPK_PROCESS_TRACKING {
    LIST_ENTRY Registrations;  ///< under the process table's mutex
    GUID Client;
    ProcessTrackingConfig Config;
    volatile LONG References;
    /// Held for each block that has come off its process and is still the library's. The end of the
    /// registration waits for these: its client may be gone as soon as it has ended.
    EX_RUNDOWN_REF Detached;
};

namespace zpklib {

namespace {

/// Registrations in force, under the process table's mutex.
constinit LIST_ENTRY registrations = {};

bool IsRegistered(const GUID& client) {
    for (LIST_ENTRY* at = registrations.Flink; at != &registrations; at = at->Flink) {
        auto* each = CONTAINING_RECORD(at, ZPK_PROCESS_TRACKING, Registrations);
        if (memcmp(&each->Client, &client, sizeof(client)) == 0) {
            return true;
        }
    }
    return false;
}

void Release(ZPK_PROCESS_TRACKING* registration) {
    if (InterlockedDecrement(&registration->References) == 0) {
        ExFreePoolWithTag(registration, kRegistrationTag);
    }
}

void Release(ProcessContext* context) {
    if (InterlockedDecrement(&context->References) != 0) {
        return;
    }
    ZPK_PROCESS_TRACKING* registration = context->Registration;
    if (registration->Config.ContextCleanup != nullptr) {
        registration->Config.ContextCleanup(context->Block());
    }
    ExFreePoolWithTag(context, registration->Config.PoolTag);
    Release(registration);
}

/// Under the mutex or in a read section.
ProcessContext* Find(Process* process, ZPK_PROCESS_TRACKING* registration) {
    auto* context = static_cast<ProcessContext*>(ReadPointerAcquire(&process->FirstContext));
    while (context != nullptr && context->Registration != registration) {
        context = static_cast<ProcessContext*>(ReadPointerAcquire(&context->NextOfProcess));
    }
    return context;
}

/// Takes the registration's context off the process and puts it in front of `detached`; under the
/// mutex. The context keeps its link, for readers that stand on it.
void Detach(Process* process, ZPK_PROCESS_TRACKING* registration, ProcessContext** detached) {
    PVOID volatile* link = &process->FirstContext;
    while (auto* context = static_cast<ProcessContext*>(ReadPointerNoFence(link))) {
        if (context->Registration == registration) {
            // Granted: the registration's end takes its own blocks off before it begins to wait.
            ExAcquireRundownProtection(&registration->Detached);
            WritePointerRelease(link, ReadPointerNoFence(&context->NextOfProcess));
            context->NextDetached = *detached;
            *detached = context;
            return;
        }
        link = &context->NextOfProcess;
    }
}

}  // namespace

void InitializeProcessContexts() {
    InitializeListHead(&registrations);
}

PVOID ReferencedContext(Process* process, ZPK_PROCESS_TRACKING* registration) {
    ReadSection section;
    ProcessContext* context = Find(process, registration);
    if (context == nullptr) {
        return nullptr;
    }
    InterlockedIncrement(&context->References);
    return context->Block();
}

ProcessContext* DetachContexts(Process* process) {
    ProcessContext* detached = nullptr;
    while (auto* context = static_cast<ProcessContext*>(process->FirstContext)) {
        Detach(process, context->Registration, &detached);
    }
    return detached;
}

void ReleaseDetached(ProcessContext* contexts) {
    while (contexts != nullptr) {
        ProcessContext* next = contexts->NextDetached;
        ZPK_PROCESS_TRACKING* registration = contexts->Registration;
        Release(contexts);
        ExReleaseRundownProtection(&registration->Detached);
        contexts = next;
    }
}

}  // namespace zpklib

using namespace zpklib;

extern "C" {

NTSTATUS NTAPI ZPkPsRegister(const GUID* client, const ProcessTrackingConfig* config,
                             ZPK_PROCESS_TRACKING** tracking) {
    *tracking = nullptr;
    if (config->Options != ZPK_TRACK_UNTIL_EXIT) {
        return STATUS_INVALID_PARAMETER;
    }
    auto* made = AllocateZeroed<ZPK_PROCESS_TRACKING>(nonPagedPool, kRegistrationTag);
    if (made == nullptr) {
        return STATUS_INSUFFICIENT_RESOURCES;
    }
    made->Client = *client;
    made->Config = *config;
    made->References = 1;
    ExInitializeRundownProtection(&made->Detached);
    MutexGuard guard(processTable.Mutex());
    if (IsRegistered(*client)) {
        ExFreePoolWithTag(made, kRegistrationTag);
        return STATUS_OBJECT_NAME_COLLISION;
    }
    InsertTailList(&registrations, &made->Registrations);
    *tracking = made;
    return STATUS_SUCCESS;
}

NTSTATUS NTAPI ZPkPsUnregister(ZPK_PROCESS_TRACKING* tracking) {
    ProcessContext* detached = nullptr;
    {
        MutexGuard guard(processTable.Mutex());
        RemoveEntryList(&tracking->Registrations);
        processTable.ForEach([&](Process* process) { Detach(process, tracking, &detached); });
    }
    WaitForReaders();
    ReleaseDetached(detached);
    // What the end of a process has taken off is still on its way to the client on that thread.
    ExWaitForRundownProtectionRelease(&tracking->Detached);
    Release(tracking);
    return STATUS_SUCCESS;
}

PVOID NTAPI ZPkPsAllocateContext(ZPK_PROCESS_TRACKING* tracking) {
    const ProcessTrackingConfig& config = tracking->Config;
    if (config.ContextSize > SIZE_T{0} - 1 - sizeof(ProcessContext)) {
        return nullptr;
    }
    auto* context = static_cast<ProcessContext*>(
        ExAllocatePoolWithTag(static_cast<POOL_TYPE>(config.PoolType),
                              sizeof(ProcessContext) + config.ContextSize, config.PoolTag));
    if (context == nullptr) {
        return nullptr;
    }
    *context = {tracking, nullptr, nullptr, 1};
    InterlockedIncrement(&tracking->References);
    return context->Block();
}

NTSTATUS NTAPI ZPkPsSetContext(HANDLE processId, ULONG options, PVOID context, PVOID* existing) {
    *existing = nullptr;
    if (options != ZPK_SET_CONTEXT_KEEP_EXISTING) {
        return STATUS_INVALID_PARAMETER;
    }
    ProcessContext* offered = ProcessContext::Of(context);
    ProcessReference process;
    const NTSTATUS status = processTable.Get(processId, process);
    if (!NT_SUCCESS(status)) {
        return status;
    }
    MutexGuard guard(processTable.Mutex());
    if (process->Exited != 0) {
        return STATUS_INVALID_CID;
    }
    ProcessContext* present = Find(process.Get(), offered->Registration);
    if (present != nullptr) {
        InterlockedIncrement(&present->References);
        *existing = present->Block();
        return ZPK_STATUS_CONTEXT_EXISTS;
    }
    InterlockedIncrement(&offered->References);
    offered->NextOfProcess = process->FirstContext;
    WritePointerRelease(&process->FirstContext, offered);
    return STATUS_SUCCESS;
}

void NTAPI ZPkPsReleaseContext(PVOID context) {
    Release(ProcessContext::Of(context));
}

}  // extern "C"
