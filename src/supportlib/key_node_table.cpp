#include "supportlib/key_node_table.h"

#include "supportlib/driver_entry.h"
#include "supportlib/pool_memory.h"

namespace zpklib {

namespace {

constexpr ULONG kFirstSize = 1024;
constexpr ULONG kLargestSize = 1u << 22;

}  // namespace

/// Chain heads; `Size` of them, a power of two, follow.
struct KeyNodeTable::Buckets {
    Retirable Retiring;
    ULONG64 Size;

    PVOID volatile* Head(ULONG64 hash) {
        return reinterpret_cast<PVOID volatile*>(this + 1) + (hash & (Size - 1));
    }
    void Push(ZPK_NODE* node) {
        PVOID volatile* head = Head(static_cast<ULONG64>(node->Hash));
        WritePointerRelease(&node->NextInBucket, ReadPointerNoFence(head));
        WritePointerRelease(head, node);
    }
    static Buckets* Allocate(ULONG64 size) {
        auto* buckets = AllocateZeroed<Buckets>(PagedPool, kBucketsTag, size * sizeof(PVOID));
        if (buckets != nullptr) {
            buckets->Retiring.PoolTag = kBucketsTag;
            buckets->Size = size;
        }
        return buckets;
    }
};

bool KeyNodeTable::Initialize() {
    count_ = 0;
    buckets_ = Buckets::Allocate(kFirstSize);
    return buckets_ != nullptr;
}

void KeyNodeTable::Destroy() {
    ExFreePoolWithTag(buckets_, kBucketsTag);
}

ZPK_NODE* KeyNodeTable::Find(TextView path, ULONG64 hash) const {
    auto* node = static_cast<ZPK_NODE*>(ReadPointerAcquire(Current()->Head(hash)));
    while (node != nullptr) {
        if (ReadNoFence64(&node->Hash) == static_cast<LONG64>(hash) &&
            EqualFolded(node->CurrentPath()->Text(), path)) {
            return node;
        }
        node = static_cast<ZPK_NODE*>(ReadPointerAcquire(&node->NextInBucket));
    }
    return nullptr;
}

void KeyNodeTable::Link(ZPK_NODE* node) {
    Current()->Push(node);
    ++count_;
}

void KeyNodeTable::Unlink(ZPK_NODE* node) {
    PVOID volatile* link = Current()->Head(static_cast<ULONG64>(node->Hash));
    while (ReadPointerNoFence(link) != node) {
        link = &static_cast<ZPK_NODE*>(ReadPointerNoFence(link))->NextInBucket;
    }
    // The node keeps its own link, for readers that stand on it.
    WritePointerRelease(link, ReadPointerNoFence(&node->NextInBucket));
    --count_;
}

Retirable* KeyNodeTable::GrowIfFull(LIST_ENTRY& allNodes) {
    Buckets* old = Current();
    if (count_ <= old->Size || old->Size == kLargestSize) {
        return nullptr;
    }
    Buckets* larger = Buckets::Allocate(old->Size * 2);
    if (larger == nullptr) {
        return nullptr;
    }
    for (LIST_ENTRY* entry = allNodes.Flink; entry != &allNodes; entry = entry->Flink) {
        larger->Push(CONTAINING_RECORD(entry, ZPK_NODE, AllNodes));
    }
    WritePointerRelease(&buckets_, larger);
    return &old->Retiring;
}

}  // namespace zpklib
