#include "intercept/key_context.h"

#include "intercept/key_entry.h"
#include "intercept/key_path.h"
#include "intercept/process_policy.h"
#include "intercept/tracing.h"
#include "records/caller_memory.h"
#include "records/record_writer.h"

namespace zpregflt {

namespace {

constinit PAGED_LOOKASIDE_LIST KeyContextLookaside = {};

struct FreeKeyContextBlock {
    static void Give(KeyObjectContext* context) {
        ExFreeToPagedLookasideList(&KeyContextLookaside, context);
    }
};
using KeyContextBlock = Reference<KeyObjectContext, FreeKeyContextBlock>;

/// Gives back what the context refers to.
void ReleaseReferences(DriverState* state, const KeyObjectContext& context) {
    ZPkPsRelease(context.Process);
    ZPkPsReleaseContext(context.ProcessContext);
    if (ZPK_NODE* node = context.Node(); node != nullptr) {
        ZPkDtReleaseNode(state->KeyTree, node);
    }
    if (KeyEntry* entry = context.Entry(); entry != nullptr) {
        ZPkDtReleaseContext(entry);
    }
}

/// The disposition that the caller is told. Where the system reports through the caller's own
/// variable it may fault, and then counts as a new key: its node and record are better made once
/// too often than not at all.
ULONG ReadDisposition(const REG_CREATE_KEY_INFORMATION& create) {
    ULONG disposition = REG_CREATED_NEW_KEY;
    if (create.Disposition != nullptr && !ReadCaller(create.Disposition, disposition)) {
        return REG_CREATED_NEW_KEY;
    }
    return disposition;
}

void TraceCreation(PVOID object, const REG_CREATE_KEY_INFORMATION& create) {
    if (!TraceFilterMatch(PsGetCurrentProcessId(), operation::kCreateKeyEx)) {
        return;
    }
    KeyPath path;
    if (NT_SUCCESS(BuildKeyPath(create.CompleteName, create.RootObject, path))) {
        ZPRF_TRACE(TRACE_OPERATION, TRACE_LEVEL_INFORMATION,
                   "process %p, key %p: CreateKeyEx %Z by %p, options %x, access %x granted %x, "
                   "disposition %u",
                   PsGetCurrentProcessId(), object, &path.Text(), PsGetCurrentProcessId(),
                   create.CreateOptions, create.DesiredAccess, create.GrantedAccess,
                   ReadDisposition(create));
    }
}

void TraceOpening(PVOID object, const REG_OPEN_KEY_INFORMATION& open) {
    if (!TraceFilterMatch(PsGetCurrentProcessId(), operation::kOpenKeyEx)) {
        return;
    }
    KeyPath path;
    if (NT_SUCCESS(BuildKeyPath(open.CompleteName, open.RootObject, path))) {
        ZPRF_TRACE(TRACE_OPERATION, TRACE_LEVEL_INFORMATION,
                   "process %p, key %p: OpenKeyEx %Z by %p, access %x granted %x",
                   PsGetCurrentProcessId(), object, &path.Text(), PsGetCurrentProcessId(),
                   open.DesiredAccess, open.GrantedAccess);
    }
}

}  // namespace

void InitializeKeyContexts() {
    ExInitializePagedLookasideList(&KeyContextLookaside, nullptr, nullptr, 0,
                                   sizeof(KeyObjectContext), kKeyContextTag, 0);
}

void UninitializeKeyContexts() {
    ExDeletePagedLookasideList(&KeyContextLookaside);
}

KeyObjectContext* AttachKeyContext(PVOID object, DriverState* state, OperationMask operations,
                                   OperationMask traceBit) {
    MonitoredProcess process;
    if (!AcquireMonitoredProcess(*state, traceBit, process)) {
        return nullptr;
    }
    const HANDLE processId = PsGetCurrentProcessId();
    KeyContextBlock block(
        static_cast<KeyObjectContext*>(ExAllocateFromPagedLookasideList(&KeyContextLookaside)));
    if (!block) {
        ZPRF_TRACE_FILTERED(TRACE_OPERATION, TRACE_LEVEL_WARNING, traceBit,
                            "process %p: no memory for a key context", processId);
        return nullptr;
    }
    // Complete before it is attached: if the callback is being unregistered, its clean-up may come
    // the moment it is there. From then on the references belong to the context.
    *block = {static_cast<LONG>(operations), process.record.Get(), process.context.Get(), nullptr,
              nullptr};
    PVOID oldContext = nullptr;
    const NTSTATUS status =
        CmSetCallbackObjectContext(object, &state->CallbackCookie, block.Get(), &oldContext);
    if (status != STATUS_SUCCESS) {
        ZPRF_TRACE_FILTERED(TRACE_OPERATION, TRACE_LEVEL_WARNING, traceBit,
                            "process %p: key context not set, status %x", processId, status);
        return nullptr;
    }
    process.record.Detach();
    process.context.Detach();
    ZPRF_TRACE_FILTERED(TRACE_OPERATION, TRACE_LEVEL_INFORMATION, traceBit,
                        "process %p, key %p: context %p attached", processId, object, block.Get());
    return block.Detach();
}

bool NTAPI KeyCreated(PVOID notification, DriverState* state) {
    const auto& post = *static_cast<const REG_POST_OPERATION_INFORMATION*>(notification);
    const auto& create = *static_cast<const REG_CREATE_KEY_INFORMATION*>(post.PreInformation);
    if (TraceEnabled(TRACE_OPERATION, TRACE_LEVEL_INFORMATION)) {
        TraceCreation(post.Object, create);
    }
    KeyObjectContext* const context =
        AttachKeyContext(post.Object, state, operation::kCreateKeyEx, operation::kCreateKeyEx);
    if (context == nullptr) {
        return false;
    }
    if (ReadDisposition(create) == REG_OPENED_EXISTING_KEY) {
        InterlockedOr(&context->KeyOperations, static_cast<LONG>(operation::kOpenKeyEx));
        return false;
    }
    KeyPath path;
    if (NT_SUCCESS(BuildKeyPath(create.CompleteName, create.RootObject, path))) {
        // A key without an entry is recorded without its name; a later operation tries again.
        static_cast<void>(BindKeyEntry(path.Text(), state, context));
    }
    if ((context->ProcessContext->Operations & operation::kCreateKeyEx) == 0) {
        return false;
    }
    const RecordWriter<RecordHeader> record(RecordType::kKeyCreated, post.Object, *context,
                                            operation::kCreateKeyEx);
    return static_cast<bool>(record);
}

bool NTAPI KeyOpened(PVOID notification, DriverState* state) {
    const auto& post = *static_cast<const REG_POST_OPERATION_INFORMATION*>(notification);
    if (TraceEnabled(TRACE_OPERATION, TRACE_LEVEL_INFORMATION)) {
        TraceOpening(post.Object,
                     *static_cast<const REG_OPEN_KEY_INFORMATION*>(post.PreInformation));
    }
    AttachKeyContext(post.Object, state, operation::kOpenKeyEx, operation::kOpenKeyEx);
    return false;
}

bool NTAPI ReleaseKeyContext(PVOID notification, DriverState* state) {
    const auto& cleanup =
        *static_cast<const REG_CALLBACK_CONTEXT_CLEANUP_INFORMATION*>(notification);
    const KeyContextBlock context(static_cast<KeyObjectContext*>(cleanup.ObjectContext));
    if (TraceEnabled(TRACE_OPERATION, TRACE_LEVEL_INFORMATION)) {
        const auto processId = reinterpret_cast<HANDLE>(context->Process->ProcessId);
        if (TraceFilterMatch(processId, static_cast<OperationMask>(context->KeyOperations))) {
            ZPRF_TRACE(TRACE_OPERATION, TRACE_LEVEL_INFORMATION,
                       "process %p, key %p: context %p released", processId, cleanup.Object,
                       context.Get());
        }
    }
    ReleaseReferences(state, *context);
    return false;
}

}  // namespace zpregflt
