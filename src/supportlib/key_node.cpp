#include "supportlib/key_node.h"

#include "supportlib/driver_entry.h"
#include "supportlib/pool_memory.h"

namespace zpklib {

ZPK_NODE* AllocateNode(ULONG length) {
    auto* node =
        AllocateZeroed<ZPK_NODE>(PagedPool, kNodeTag, sizeof(NodePath) + length * sizeof(WCHAR));
    if (node == nullptr) {
        return nullptr;
    }
    node->Retiring.PoolTag = kNodeTag;
    node->OwnPath()->Length = length;
    InitializeListHead(&node->Children);
    return node;
}

void FinishNode(ZPK_NODE* node) {
    node->Path = node->OwnPath();
    node->Hash = static_cast<LONG64>(FoldedHash(node->OwnPath()->Text()));
}

void FreeUnpublishedNode(ZPK_NODE* node) {
    ExFreePoolWithTag(node, kNodeTag);
}

bool TryReference(ZPK_NODE* node) {
    LONG seen = ReadNoFence(&node->References);
    while (seen != 0) {
        const LONG before = InterlockedCompareExchange(&node->References, seen + 1, seen);
        if (before == seen) {
            return true;
        }
        seen = before;
    }
    return false;
}

NodePath* AllocatePath(ULONG length) {
    auto* path = AllocateZeroed<NodePath>(PagedPool, kPathTag, length * sizeof(WCHAR));
    if (path != nullptr) {
        path->Retiring.PoolTag = kPathTag;
        path->Length = length;
    }
    return path;
}

}  // namespace zpklib
