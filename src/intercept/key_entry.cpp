#include "intercept/key_entry.h"

#include "channel/value_cache.h"
#include "driver/driver_state.h"
#include "intercept/key_path.h"
#include "intercept/references.h"

namespace zpregflt {

namespace {

/// Publishes the node, or drops it if another thread's is there. Returns the context's node.
ZPK_NODE* PublishNode(KeyObjectContext& context, KeyNodeRef node) {
    PVOID winner = InterlockedCompareExchangePointer(&context.KeyNode, node.Get(), nullptr);
    return winner == nullptr ? node.Detach() : static_cast<ZPK_NODE*>(winner);
}

/// Publishes the entry of the context's node, or drops it if another thread's is there.
void PublishEntry(KeyObjectContext& context, KeyEntryRef entry) {
    if (InterlockedCompareExchangePointer(&context.KeyEntry, entry.Get(), nullptr) == nullptr) {
        entry.Detach();
    }
}

KeyEntryRef NewKeyEntry(const DriverState& state) {
    KeyEntryRef entry(static_cast<KeyEntry*>(ZPkDtAllocateContext(state.KeyTree, 0)));
    if (entry) {
        KeInitializeGuardedMutex(&entry->EntryLock);
        entry->SetName(nullptr, 0);
        entry->Identity = NewKeyIdentity();
    }
    return entry;
}

/// The entry of the node: the one it has, or a new one.
NTSTATUS FindOrAttachEntry(const DriverState& state, ZPK_NODE* node, KeyEntryRef& entry) {
    entry.Reset(static_cast<KeyEntry*>(ZPkDtGetContext(state.KeyTree, node)));
    if (entry) {
        return STATUS_SUCCESS;
    }
    entry = NewKeyEntry(state);
    if (!entry) {
        return STATUS_NO_MEMORY;
    }
    if (ZPkDtInsertContext(state.KeyTree, node, entry.Get())) {
        return STATUS_SUCCESS;
    }
    // Another thread has attached one in between.
    entry.Reset(static_cast<KeyEntry*>(ZPkDtGetContext(state.KeyTree, node)));
    return entry ? STATUS_SUCCESS : STATUS_UNSUCCESSFUL;
}

/// Adds the rest of a path below the node that the lookup returned for its beginning.
NTSTATUS InsertRest(const DriverState& state, const UNICODE_STRING& rest, KeyNodeRef& node,
                    KeyEntryRef& entry) {
    entry = NewKeyEntry(state);
    if (!entry) {
        return STATUS_NO_MEMORY;
    }
    ZPK_NODE* inserted = node.Detach();
    const NTSTATUS status = ZPkDtInsert(state.KeyTree, &rest, entry.Get(), &inserted);
    node.Reset(inserted);
    if (!NT_SUCCESS(status)) {
        entry.Reset();
    }
    return status;
}

/// The path's node, and its entry if it has one or the node is new.
NTSTATUS FindOrInsertNode(const DriverState& state, const UNICODE_STRING& path, KeyNodeRef& node,
                          KeyEntryRef& entry) {
    UNICODE_STRING rest = path;
    if (ZPkDtLookup(state.KeyTree, &rest, node.Receive(), entry.ReceiveBlock()) &&
        rest.Length == 0) {
        return STATUS_SUCCESS;
    }
    const NTSTATUS status = InsertRest(state, rest, node, entry);
    return status == ZPK_STATUS_NODE_EXISTS ? STATUS_SUCCESS : status;
}

/// Gives the context, whose node is published, that node's entry.
NTSTATUS AdoptEntryOf(const DriverState& state, ZPK_NODE* node, KeyObjectContext& context) {
    KeyEntryRef entry;
    const NTSTATUS status = FindOrAttachEntry(state, node, entry);
    if (NT_SUCCESS(status)) {
        PublishEntry(context, std::move(entry));
    }
    return status;
}

}  // namespace

NTSTATUS BindKeyEntry(const UNICODE_STRING& path, DriverState* state, KeyObjectContext* context) {
    KeyNodeRef node;
    KeyEntryRef entry;
    const NTSTATUS status = FindOrInsertNode(*state, path, node, entry);
    if (!node) {
        return NT_SUCCESS(status) ? STATUS_UNSUCCESSFUL : status;
    }
    if (!NT_SUCCESS(status)) {
        return status;
    }
    ZPK_NODE* const ours = node.Get();
    ZPK_NODE* const published = PublishNode(*context, std::move(node));
    if (published == ours && entry) {
        PublishEntry(*context, std::move(entry));
        return STATUS_SUCCESS;
    }
    return AdoptEntryOf(*state, published, *context);
}

NTSTATUS EnsureKeyEntry(PUNICODE_STRING name, PVOID object, DriverState* state,
                        KeyObjectContext* context) {
    if (ZPK_NODE* node = context->Node(); node != nullptr) {
        return AdoptEntryOf(*state, node, *context);
    }
    KeyPath path;
    const NTSTATUS status = BuildKeyPath(name, object, path);
    if (!NT_SUCCESS(status)) {
        return status;
    }
    return BindKeyEntry(path.Text(), state, context);
}

}  // namespace zpregflt
