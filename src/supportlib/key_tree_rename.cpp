// Renaming: the paths of a node and of everything below it change together under the mutex. All new
// paths are allocated before the first one is used, so that a rename happens whole or not at all.
// A reader without the mutex meets each node with its old path or its new one.
#include "supportlib/key_tree.h"

using namespace zpklib;

namespace {

/// The node after `node` in the subtree of `top`, parents first; null after the last.
ZPK_NODE* NextInSubtree(ZPK_NODE* top, ZPK_NODE* node) {
    if (!IsListEmpty(&node->Children)) {
        return CONTAINING_RECORD(node->Children.Flink, ZPK_NODE, Siblings);
    }
    for (; node != top; node = node->Parent) {
        if (node->Siblings.Flink != &node->Parent->Children) {
            return CONTAINING_RECORD(node->Siblings.Flink, ZPK_NODE, Siblings);
        }
    }
    return nullptr;
}

/// `parent`, a backslash, `name`, `suffix`; null when there is no memory.
NodePath* JoinPath(TextView parent, TextView name, TextView suffix) {
    NodePath* path = AllocatePath(parent.Length + 1 + name.Length + suffix.Length);
    if (path == nullptr) {
        return nullptr;
    }
    WCHAR* at = path->Characters();
    RtlCopyMemory(at, parent.Text, parent.Length * sizeof(WCHAR));
    at += parent.Length;
    *at++ = L'\\';
    RtlCopyMemory(at, name.Text, name.Length * sizeof(WCHAR));
    RtlCopyMemory(at + name.Length, suffix.Text, suffix.Length * sizeof(WCHAR));
    return path;
}

}  // namespace

NTSTATUS ZPK_KEY_TREE::Rename(ZPK_NODE* node, TextView newName) {
    if (newName.Length == 0 || LastComponent(newName).Length != newName.Length) {
        return STATUS_OBJECT_NAME_INVALID;
    }
    Writer writer(*this);
    const NTSTATUS status = PrepareRename(node, newName);
    if (!NT_SUCCESS(status)) {
        AbandonRename(node);
        return status;
    }
    if (node->InTree) {
        // A key can only be given a name that no other key has: a node of that path is left from a
        // key that is gone.
        ZPK_NODE* stale = FindLocked(node->PendingPath->Text());
        if (stale != nullptr && stale != node) {
            RemoveSubtree(stale);
        }
    }
    CommitRename(node);
    return STATUS_SUCCESS;
}

NTSTATUS ZPK_KEY_TREE::PrepareRename(ZPK_NODE* node, TextView newName) {
    const TextView oldTop = node->CurrentPath()->Text();
    const TextView parent = ParentPath(oldTop);
    for (ZPK_NODE* each = node; each != nullptr; each = NextInSubtree(node, each)) {
        const TextView suffix = each->CurrentPath()->Text().From(oldTop.Length);
        if (parent.Length + 1 + newName.Length + suffix.Length > kMaximumPathLength) {
            return STATUS_NAME_TOO_LONG;
        }
        each->PendingPath = JoinPath(parent, newName, suffix);
        if (each->PendingPath == nullptr) {
            return STATUS_INSUFFICIENT_RESOURCES;
        }
    }
    return STATUS_SUCCESS;
}

void ZPK_KEY_TREE::AbandonRename(ZPK_NODE* node) {
    for (ZPK_NODE* each = node; each != nullptr; each = NextInSubtree(node, each)) {
        if (each->PendingPath != nullptr) {
            ExFreePoolWithTag(each->PendingPath, each->PendingPath->Retiring.PoolTag);
            each->PendingPath = nullptr;
        }
    }
}

void ZPK_KEY_TREE::CommitRename(ZPK_NODE* node) {
    for (ZPK_NODE* each = node; each != nullptr; each = NextInSubtree(node, each)) {
        NodePath* old = each->CurrentPath();
        if (each->InTree) {
            table_.Unlink(each);
        }
        const ULONG64 hash = FoldedHash(each->PendingPath->Text());
        InterlockedExchange64(&each->Hash, static_cast<LONG64>(hash));
        WritePointerRelease(&each->Path, each->PendingPath);
        each->PendingPath = nullptr;
        if (each->InTree) {
            table_.Link(each);
        }
        if (old != each->OwnPath()) {
            Retire(&old->Retiring);
        }
    }
}
