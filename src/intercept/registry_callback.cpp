#include "intercept/registry_callback.h"

#include "intercept/contexts.h"
#include "intercept/key_entry.h"
#include "intercept/operation_table.h"
#include "intercept/tracing.h"

namespace zpregflt {

namespace {

/// One notification on its way through the gates.
struct Notification {
    OperationEntry& row;
    PVOID structure;
    DriverState* state;

    ULONG Class() const { return static_cast<ULONG>(&row - OperationTable); }
    template <typename T>
    T Member(ULONG64 offset) const {
        return *reinterpret_cast<T const*>(static_cast<const UCHAR*>(structure) + offset);
    }
    PVOID Object() const { return Member<PVOID>(row.ObjectOffset); }
};

bool Succeeded(const Notification& notification) {
    const auto* post = static_cast<const REG_POST_OPERATION_INFORMATION*>(notification.structure);
    if (post->Status == STATUS_SUCCESS) {
        return true;
    }
    ZPRF_TRACE_FILTERED(TRACE_DRIVER, TRACE_LEVEL_VERBOSE, notification.row.Mask,
                        "process %p: class %u %s failed, status %x", PsGetCurrentProcessId(),
                        notification.Class(), notification.row.Name, post->Status);
    InterlockedIncrement64(&notification.row.Fail);
    return false;
}

bool Watched(const Notification& notification, const KeyObjectContext& context) {
    const OperationMask operations = context.ProcessContext->Operations;
    if ((operations & notification.row.Mask) != 0) {
        return true;
    }
    ZPRF_TRACE_FILTERED(TRACE_DRIVER, TRACE_LEVEL_VERBOSE, notification.row.Mask,
                        "process %p, key %p: class %u %s not watched, operations %x",
                        PsGetCurrentProcessId(), notification.Object(), notification.Class(),
                        notification.row.Name, operations);
    InterlockedIncrement64(&notification.row.Filter);
    return false;
}

bool HasKeyEntry(const Notification& notification, KeyObjectContext& context) {
    if (context.Entry() != nullptr ||
        NT_SUCCESS(EnsureKeyEntry(nullptr, notification.Object(), notification.state, &context))) {
        return true;
    }
    ZPRF_TRACE_FILTERED(TRACE_DRIVER, TRACE_LEVEL_VERBOSE, notification.row.Mask,
                        "process %p, key %p: class %u %s without key entry",
                        PsGetCurrentProcessId(), notification.Object(), notification.Class(),
                        notification.row.Name);
    return false;
}

/// The gates that look at the key's object context.
bool PassesContextGates(const Notification& notification) {
    auto* const context =
        notification.Member<KeyObjectContext*>(notification.row.ObjectContextOffset);
    if (context == nullptr) {
        ZPRF_TRACE_FILTERED(TRACE_DRIVER, TRACE_LEVEL_VERBOSE, notification.row.Mask,
                            "process %p, key %p: class %u %s without key context",
                            PsGetCurrentProcessId(), notification.Object(), notification.Class(),
                            notification.row.Name);
        return false;
    }
    // Most operations repeat one that the key has seen: a look saves the locked instruction.
    const auto mask = static_cast<LONG>(notification.row.Mask);
    if ((ReadNoFence(&context->KeyOperations) & mask) != mask) {
        InterlockedOr(&context->KeyOperations, mask);
    }
    const ULONG flags = notification.row.Flags;
    return ((flags & OP_FLAG_POLICY) == 0 || Watched(notification, *context)) &&
           ((flags & OP_FLAG_KEY_ENTRY) == 0 || HasKeyEntry(notification, *context));
}

bool PassesGates(const Notification& notification) {
    const ULONG flags = notification.row.Flags;
    if ((flags & OP_FLAG_DIRECT) != 0) {
        return true;
    }
    if ((flags & OP_FLAG_SYSTEM) == 0 && PsIsSystemThread(PsGetCurrentThread())) {
        return false;
    }
    return ((flags & OP_FLAG_SUCCESS) == 0 || Succeeded(notification)) &&
           ((flags & OP_FLAG_CONTEXT) == 0 || PassesContextGates(notification));
}

/// Apart from the callback, so that a notification that no row handles costs its count and no more.
[[gnu::noinline]] NTSTATUS NTAPI Dispatch(OperationEntry& row, PVOID structure,
                                          DriverState* state) {
    if (PassesGates({row, structure, state}) && row.Handler(structure, state)) {
        InterlockedIncrement64(&row.Log);
    }
    return STATUS_SUCCESS;
}

}  // namespace

NTSTATUS NTAPI RegistryCallback(PVOID callbackContext, PVOID argument1, PVOID argument2) {
    const auto notifyClass = reinterpret_cast<ULONG_PTR>(argument1);
    if (notifyClass >= kOperationClassCount) {
        return STATUS_SUCCESS;
    }
    OperationEntry& row = OperationTable[notifyClass];
    InterlockedIncrement64(&row.Hit);
    if (row.Handler == nullptr || argument2 == nullptr) {
        return STATUS_SUCCESS;
    }
    return Dispatch(row, argument2, static_cast<DriverState*>(callbackContext));
}

}  // namespace zpregflt
