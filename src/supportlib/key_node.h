// Nodes of a key tree and the paths that they carry.
//
// A node carries its whole path, so that a lookup compares once and a name is read with one copy.
// The path with which a node was made lies right behind it; a rename gives it another one.
#pragma once

#include "supportlib/key_path.h"
#include "supportlib/zpklib.h"

#include <wdm.h>

namespace zpklib {

/// First member of everything that readers may still be looking at when it is given up.
struct Retirable {
    Retirable* NextRetired;
    ULONG PoolTag;
};

/// A canonical path; the characters follow. Never changes once a node refers to it.
struct NodePath {
    Retirable Retiring;
    ULONG Length;  ///< characters

    WCHAR* Characters() { return reinterpret_cast<WCHAR*>(this + 1); }
    TextView Text() { return {Characters(), Length}; }
};

}  // namespace zpklib

struct ZPK_NODE {
    // What lookups read and write, on one cache line.
    zpklib::Retirable Retiring;
    PVOID volatile NextInBucket;  ///< ZPK_NODE
    volatile LONG64 Hash;         ///< of the path
    PVOID volatile Path;          ///< NodePath; valid in a read section or under the tree's mutex
    PVOID volatile Context;       ///< the client's block or null; set once
    /// Callers' references, and one more while the tree holds the node. At zero the node is over:
    /// nobody may take a reference any more.
    volatile LONG References;
    volatile UCHAR RecentlyUsed;  ///< found since the sweep last came by

    // The tree's structure, under its mutex. A node is in all of these or in none.
    bool InTree;
    ZPK_NODE* Parent;  ///< null for a path of one component
    LIST_ENTRY Siblings;
    LIST_ENTRY Children;
    LIST_ENTRY AllNodes;
    zpklib::NodePath* PendingPath;  ///< the path after the rename that is being prepared

    zpklib::NodePath* OwnPath() { return reinterpret_cast<zpklib::NodePath*>(this + 1); }
    zpklib::NodePath* CurrentPath() {
        return static_cast<zpklib::NodePath*>(ReadPointerAcquire(&Path));
    }
};

namespace zpklib {

/// A node with room for a path of `length` characters, which the caller fills in before
/// FinishNode; no references, in no tree. Null when there is no memory.
ZPK_NODE* AllocateNode(ULONG length);
/// Makes the path behind the node its path.
void FinishNode(ZPK_NODE* node);
/// Frees a node that no reader has ever been able to find.
void FreeUnpublishedNode(ZPK_NODE* node);

/// Fails when the node is over.
bool TryReference(ZPK_NODE* node);

/// A path block of its own, or null.
NodePath* AllocatePath(ULONG length);

}  // namespace zpklib
