#include "supportlib/key_tree.h"

#include "supportlib/driver_entry.h"
#include "supportlib/key_contexts.h"
#include "supportlib/pool_memory.h"
#include "supportlib/read_section.h"

using namespace zpklib;

namespace {

/// Waiting for readers is shared by this many retired things.
constexpr ULONG kReclaimBatch = 64;
/// Nodes that one insertion looks at while the tree is above its limit.
constexpr int kSweepStep = 8;

void FreeRetired(Retirable* things) {
    while (things != nullptr) {
        Retirable* next = things->NextRetired;
        ExFreePoolWithTag(things, things->PoolTag);
        things = next;
    }
}

/// A node, in no tree yet, whose path is `base`'s (if any) with `rest` behind it.
NTSTATUS MakeNode(ZPK_NODE* base, TextView rest, ZPK_NODE** node) {
    // The section keeps the base's path if a rename replaces it meanwhile.
    ReadSection section;
    const TextView prefix = base != nullptr ? base->CurrentPath()->Text() : TextView{};
    const ULONG length = prefix.Length + CanonicalLength(rest);
    if (length == 0) {
        return STATUS_INVALID_PARAMETER;
    }
    if (length > kMaximumPathLength) {
        return STATUS_NAME_TOO_LONG;
    }
    ZPK_NODE* made = AllocateNode(length);
    if (made == nullptr) {
        return STATUS_INSUFFICIENT_RESOURCES;
    }
    WCHAR* characters = made->OwnPath()->Characters();
    if (prefix.Length != 0) {
        RtlCopyMemory(characters, prefix.Text, prefix.Length * sizeof(WCHAR));
    }
    WriteCanonical(rest, characters + prefix.Length);
    FinishNode(made);
    *node = made;
    return STATUS_SUCCESS;
}

ZPK_NODE* MakeNode(TextView canonical) {
    ZPK_NODE* node = AllocateNode(canonical.Length);
    if (node != nullptr) {
        RtlCopyMemory(node->OwnPath()->Characters(), canonical.Text,
                      canonical.Length * sizeof(WCHAR));
        FinishNode(node);
    }
    return node;
}

}  // namespace

ZPK_KEY_TREE::Writer::Writer(ZPK_KEY_TREE& tree) : tree_(tree) {
    tree_.mutex_.Acquire();
}

ZPK_KEY_TREE::Writer::~Writer() {
    Retirable* due = tree_.retiredCount_ >= kReclaimBatch ? tree_.TakeRetired() : nullptr;
    tree_.mutex_.Release();
    if (due != nullptr) {
        WaitForReaders();
        FreeRetired(due);
    }
}

NTSTATUS ZPK_KEY_TREE::Create(const KeyTreeConfig& config, ZPK_KEY_TREE** tree) {
    auto* made = AllocateZeroed<ZPK_KEY_TREE>(nonPagedPool, kTreeTag);
    if (made == nullptr) {
        return STATUS_INSUFFICIENT_RESOURCES;
    }
    if (!made->table_.Initialize()) {
        ExFreePoolWithTag(made, kTreeTag);
        return STATUS_INSUFFICIENT_RESOURCES;
    }
    made->config_ = config;
    made->mutex_.Initialize();
    InitializeListHead(&made->roots_);
    InitializeListHead(&made->allNodes_);
    *tree = made;
    return STATUS_SUCCESS;
}

void ZPK_KEY_TREE::Destroy() {
    {
        MutexGuard guard(mutex_);
        while (!IsListEmpty(&roots_)) {
            RemoveSubtree(CONTAINING_RECORD(roots_.Flink, ZPK_NODE, Siblings));
        }
    }
    // Nobody uses the tree any more, so there is no reader to wait for.
    FreeRetired(TakeRetired());
    table_.Destroy();
    ExFreePoolWithTag(this, kTreeTag);
}

ZPK_NODE* ZPK_KEY_TREE::FindWhole(TextView path) {
    const ULONG64 hash = FoldedHash(path);
    ReadSection section;
    ZPK_NODE* node = table_.Find(path, hash);
    if (node == nullptr || !TryReference(node)) {
        return nullptr;
    }
    if (ReadUCharNoFence(&node->RecentlyUsed) == 0) {
        WriteUCharNoFence(&node->RecentlyUsed, 1);
    }
    return node;
}

ZPK_NODE* ZPK_KEY_TREE::FindLongestPart(TextView path, TextView* rest) {
    const CanonicalPath canonical(path);
    TextView part = canonical.Text();
    ZPK_NODE* node = nullptr;
    {
        MutexGuard guard(mutex_);
        while (part.Length != 0 && (node = FindLocked(part)) == nullptr) {
            part = ParentPath(part);
        }
        if (node == nullptr) {
            return nullptr;
        }
        InterlockedIncrement(&node->References);
    }
    // The part may be spelt in the path with more or fewer backslashes.
    TextView component;
    for (ULONG count = CountComponents(part); count != 0; --count) {
        NextComponent(path, component);
    }
    *rest = CanonicalLength(path) != 0 ? path : path.From(path.Length);
    return node;
}

NTSTATUS ZPK_KEY_TREE::Insert(ZPK_NODE* base, TextView rest, PVOID context, ZPK_NODE** node) {
    ZPK_NODE* made = nullptr;
    const NTSTATUS status = MakeNode(base, rest, &made);
    if (!NT_SUCCESS(status)) {
        return status;
    }
    Writer writer(*this);
    // The search begins at the root, whatever the base: it may have left the tree meanwhile.
    if (ZPK_NODE* existing = FindLocked(made->OwnPath()->Text())) {
        FreeUnpublishedNode(made);
        InterlockedIncrement(&existing->References);
        *node = existing;
        return ZPK_STATUS_NODE_EXISTS;
    }
    made->References = 1;  // the caller's
    if (context != nullptr) {
        ReferenceKeyContext(context);
        made->Context = context;
    }
    if (!LinkWithAncestors(made)) {
        if (context != nullptr) {
            ReleaseKeyContext(context);
        }
        FreeUnpublishedNode(made);
        return STATUS_INSUFFICIENT_RESOURCES;
    }
    if (Retirable* smaller = table_.GrowIfFull(allNodes_)) {
        Retire(smaller);
    }
    Sweep();
    *node = made;
    return STATUS_SUCCESS;
}

/// The node has left the tree before its last reference was released.
void ZPK_KEY_TREE::RetireReleased(ZPK_NODE* node) {
    Writer writer(*this);
    RetireNode(node);
}

NTSTATUS ZPK_KEY_TREE::Delete(ZPK_NODE* node) {
    Writer writer(*this);
    if (!node->InTree) {
        return STATUS_NOT_FOUND;
    }
    RemoveSubtree(node);
    return STATUS_SUCCESS;
}

// --- Under the mutex -----------------------------------------------------------------------------

ZPK_NODE* ZPK_KEY_TREE::FindLocked(TextView path) const {
    return table_.Find(path, FoldedHash(path));
}

/// Links the node and those that its path lacks above it; without memory nothing changes.
bool ZPK_KEY_TREE::LinkWithAncestors(ZPK_NODE* node) {
    ZPK_NODE* top = node;
    for (TextView path = ParentPath(node->OwnPath()->Text()); path.Length != 0;
         path = ParentPath(path)) {
        ZPK_NODE* ancestor = FindLocked(path);
        const bool found = ancestor != nullptr;
        if (!found && (ancestor = MakeNode(path)) == nullptr) {
            // Only those above the node are ours; the node is the caller's.
            while (node->Parent != nullptr) {
                ZPK_NODE* made = node->Parent;
                node->Parent = made->Parent;
                FreeUnpublishedNode(made);
            }
            return false;
        }
        top->Parent = ancestor;
        if (found) {
            break;
        }
        top = ancestor;
    }
    for (ZPK_NODE* made = node; made != nullptr && !made->InTree; made = made->Parent) {
        LinkNode(made);
    }
    return true;
}

void ZPK_KEY_TREE::LinkNode(ZPK_NODE* node) {
    LIST_ENTRY* siblings = node->Parent != nullptr ? &node->Parent->Children : &roots_;
    InsertTailList(siblings, &node->Siblings);
    InsertTailList(&allNodes_, &node->AllNodes);
    node->InTree = true;
    InterlockedIncrement(&node->References);
    table_.Link(node);
}

/// The tree's reference remains.
void ZPK_KEY_TREE::UnlinkNode(ZPK_NODE* leaf) {
    table_.Unlink(leaf);
    RemoveEntryList(&leaf->Siblings);
    RemoveEntryList(&leaf->AllNodes);
    leaf->Parent = nullptr;
    leaf->InTree = false;
}

void ZPK_KEY_TREE::RemoveSubtree(ZPK_NODE* node) {
    while (node->InTree) {
        ZPK_NODE* leaf = node;
        while (!IsListEmpty(&leaf->Children)) {
            leaf = CONTAINING_RECORD(leaf->Children.Flink, ZPK_NODE, Siblings);
        }
        UnlinkNode(leaf);
        if (InterlockedDecrement(&leaf->References) == 0) {
            RetireNode(leaf);
        }
    }
}

void ZPK_KEY_TREE::Sweep() {
    for (int i = 0; i < kSweepStep && table_.Count() > kNodeLimit; ++i) {
        LIST_ENTRY* oldest = RemoveHeadList(&allNodes_);
        InsertTailList(&allNodes_, oldest);
        ZPK_NODE* node = CONTAINING_RECORD(oldest, ZPK_NODE, AllNodes);
        const bool used = ReadUCharNoFence(&node->RecentlyUsed) != 0;
        WriteUCharNoFence(&node->RecentlyUsed, 0);
        // With the exchange the node is over: a lookup that has found it cannot reference it.
        if (!used && IsListEmpty(&node->Children) &&
            InterlockedCompareExchange(&node->References, 0, 1) == 1) {
            UnlinkNode(node);
            RetireNode(node);
        }
    }
}

/// The node's last reference is gone.
void ZPK_KEY_TREE::RetireNode(ZPK_NODE* node) {
    if (node->Context != nullptr) {
        ReleaseKeyContext(node->Context);
    }
    if (node->CurrentPath() != node->OwnPath()) {
        Retire(&node->CurrentPath()->Retiring);
    }
    Retire(&node->Retiring);
}

void ZPK_KEY_TREE::Retire(Retirable* thing) {
    thing->NextRetired = retired_;
    retired_ = thing;
    ++retiredCount_;
}

Retirable* ZPK_KEY_TREE::TakeRetired() {
    Retirable* things = retired_;
    retired_ = nullptr;
    retiredCount_ = 0;
    return things;
}
