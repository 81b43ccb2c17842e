// The key-name tree: one node a key path.
//
// Invariants:
// - Under the mutex, two nodes of the tree never have the same path without regard to case, and the
//   tree has a node for every leading part of each path in it. So the longest part of a path that
//   is in the tree is found by trying shorter and shorter parts.
// - A lookup first searches without the mutex (a hit is true, see key_node_table.h). Only a miss,
//   which is followed by an insertion as a rule, is repeated under the mutex.
// - A node that the tree holds has a reference for that. What leaves the tree (deletion, sweep) or
//   is replaced (a path, a hash table) goes on a list of retired things and is freed after a wait
//   for readers. A node's address is therefore never reused while somebody references it or may be
//   about to.
// - A node's context is set once, from null, by a compare-exchange, and let go when the node's last
//   reference is gone: whoever references the node may read and reference its context without a
//   lock.
//
// Nodes that nobody references stay in the tree, so that a key that is opened again and again keeps
// its node and context. Above kNodeLimit nodes each insertion sweeps some of them: leaves that are
// not referenced and were not found since the last sweep leave the tree with their contexts.
#pragma once

#include "supportlib/key_node_table.h"
#include "supportlib/locks.h"

namespace zpklib {

/// About 64 MiB of paged pool with paths of usual length.
inline constexpr ULONG kNodeLimit = 1u << 18;

}  // namespace zpklib

/// Everything is called at PASSIVE_LEVEL, but GetName at IRQL <= APC_LEVEL too.
struct ZPK_KEY_TREE {
public:
    static NTSTATUS Create(const KeyTreeConfig& config, ZPK_KEY_TREE** tree);
    /// Frees the tree with its nodes.
    void Destroy();

    const KeyTreeConfig& Config() const { return config_; }

    /// The node of the whole path with a reference, or null. Takes no lock; a miss proves nothing.
    ZPK_NODE* FindWhole(zpklib::TextView path);
    /// The node of the longest leading part of the path, with a reference, or null; `rest` is then
    /// what follows that part in the path.
    ZPK_NODE* FindLongestPart(zpklib::TextView path, zpklib::TextView* rest);
    /// As ZPkDtInsert, but `base` stays the caller's.
    NTSTATUS Insert(ZPK_NODE* base, zpklib::TextView rest, PVOID context, ZPK_NODE** node);
    void Release(ZPK_NODE* node) {
        if (InterlockedDecrement(&node->References) == 0) {
            RetireReleased(node);
        }
    }
    NTSTATUS Delete(ZPK_NODE* node);
    NTSTATUS Rename(ZPK_NODE* node, zpklib::TextView newName);

private:
    /// The scope of a change: holds the mutex; once enough has been retired, it frees that after it
    /// has released the mutex and waited for readers.
    class [[nodiscard]] Writer {
    public:
        explicit Writer(ZPK_KEY_TREE& tree);
        ~Writer();
        Writer(const Writer&) = delete;
        Writer& operator=(const Writer&) = delete;

    private:
        ZPK_KEY_TREE& tree_;
    };

    void RetireReleased(ZPK_NODE* node);
    ZPK_NODE* FindLocked(zpklib::TextView path) const;
    bool LinkWithAncestors(ZPK_NODE* node);
    void LinkNode(ZPK_NODE* node);
    void UnlinkNode(ZPK_NODE* leaf);
    void RemoveSubtree(ZPK_NODE* node);
    void Sweep();
    void RetireNode(ZPK_NODE* node);
    void Retire(zpklib::Retirable* thing);
    zpklib::Retirable* TakeRetired();
    NTSTATUS PrepareRename(ZPK_NODE* node, zpklib::TextView newName);
    void AbandonRename(ZPK_NODE* node);
    void CommitRename(ZPK_NODE* node);

    KeyTreeConfig config_;
    // Guards everything below; readers without it see only the table's chains.
    zpklib::GuardedMutex mutex_;
    zpklib::KeyNodeTable table_;
    LIST_ENTRY roots_;     // nodes without a parent, by Siblings
    LIST_ENTRY allNodes_;  // in the order in which the sweep comes by
    zpklib::Retirable* retired_;
    ULONG retiredCount_;
};
