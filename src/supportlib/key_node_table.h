// The hash table of a key tree: nodes by path.
//
// Changed under the tree's mutex, searched under it or in a read section. While nodes move between
// chains (a rename, a larger table) a reader may follow one into another chain and miss what it
// looks for, but never gets lost, as every chain ends, and never finds a wrong node, as it compares
// paths. So for a reader without the mutex a hit is true and a miss proves nothing.
#pragma once

#include "supportlib/key_node.h"

namespace zpklib {

class KeyNodeTable {
public:
    /// False when there is no memory.
    bool Initialize();
    /// Frees the table; the nodes are not touched.
    void Destroy();

    /// The node with this canonical path, or null. The node stays valid as long as the read section
    /// or the mutex is held.
    ZPK_NODE* Find(TextView path, ULONG64 hash) const;
    void Link(ZPK_NODE* node);
    void Unlink(ZPK_NODE* node);

    ULONG Count() const { return count_; }
    /// Doubles the table when it has become too small for `allNodes` (linked by AllNodes). Returns
    /// the old table, which readers may still use, or null; without memory nothing changes.
    Retirable* GrowIfFull(LIST_ENTRY& allNodes);

private:
    struct Buckets;
    Buckets* Current() const { return static_cast<Buckets*>(ReadPointerAcquire(&buckets_)); }

    PVOID volatile buckets_;  // Buckets
    ULONG count_;
};

}  // namespace zpklib
