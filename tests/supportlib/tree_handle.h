// Key trees and references on their nodes, as a client of the library holds them.
#pragma once

#include "library_test.h"

/// A tree for the handle's lifetime. Its blocks hold one 64-bit number.
class TreeHandle {
public:
    TreeHandle() {
        KeyTreeConfig config = {};
        config.ContextSize = sizeof(std::uint64_t);
        config.PoolTag = kTestContextTag;
        config.PoolType = NonPagedPoolNx;
        EXPECT_EQ(ZPkDtInitialize(&config, ZPK_TREE_IGNORE_CASE, &tree_), STATUS_SUCCESS);
    }
    ~TreeHandle() { ZPkDtDestroy(tree_); }
    TreeHandle(const TreeHandle&) = delete;
    TreeHandle& operator=(const TreeHandle&) = delete;

    ZPK_KEY_TREE* Get() const { return tree_; }
    std::uint64_t* NewBlock(std::uint64_t number) const {
        auto* block = static_cast<std::uint64_t*>(ZPkDtAllocateContext(tree_, 0));
        if (block != nullptr) *block = number;
        return block;
    }

private:
    ZPK_KEY_TREE* tree_ = nullptr;
};

/// A reference on a node and one on its block, either or both absent.
struct TreeNode {
    const TreeHandle* tree = nullptr;
    ZPK_NODE* node = nullptr;
    std::uint64_t* block = nullptr;
    std::u16string rest;  ///< what a lookup did not match

    TreeNode() = default;
    explicit TreeNode(const TreeHandle& owner) : tree(&owner) {}
    TreeNode(TreeNode&& other) noexcept
        : tree(other.tree),
          node(std::exchange(other.node, nullptr)),
          block(std::exchange(other.block, nullptr)),
          rest(std::move(other.rest)) {}
    TreeNode& operator=(TreeNode&& other) noexcept {
        std::swap(tree, other.tree);
        std::swap(node, other.node);
        std::swap(block, other.block);
        std::swap(rest, other.rest);
        return *this;
    }
    ~TreeNode() {
        if (node != nullptr) ZPkDtReleaseNode(tree->Get(), node);
        if (block != nullptr) ZPkDtReleaseContext(block);
    }

    std::u16string Name() const {
        UNICODE_STRING name = {};
        EXPECT_EQ(ZPkDtGetName(tree->Get(), node, &name), STATUS_BUFFER_TOO_SMALL);
        // A rename on another thread may ask for more room than the last call did.
        while (true) {
            std::u16string text(name.MaximumLength / sizeof(char16_t), u'\0');
            name = platform::Describe(text);
            const NTSTATUS status = ZPkDtGetName(tree->Get(), node, &name);
            if (status == STATUS_BUFFER_TOO_SMALL) continue;
            EXPECT_EQ(status, STATUS_SUCCESS);
            return std::u16string(platform::View(name));
        }
    }
    NTSTATUS Rename(std::u16string_view newName) {
        const UNICODE_STRING text = platform::Describe(newName);
        return ZPkDtRename(tree->Get(), &text, &node);
    }
    NTSTATUS Delete() const { return ZPkDtDelete(tree->Get(), nullptr, node); }
};

/// `node` is null when nothing matched.
inline TreeNode Lookup(const TreeHandle& tree, std::u16string_view path) {
    TreeNode found(tree);
    UNICODE_STRING text = platform::Describe(path);
    PVOID block = nullptr;
    const BOOLEAN matched = ZPkDtLookup(tree.Get(), &text, &found.node, &block);
    EXPECT_EQ(matched != FALSE, found.node != nullptr);
    found.block = static_cast<std::uint64_t*>(block);
    found.rest = platform::View(text);
    return found;
}

/// Inserts below `base` (whose reference is taken over), with a block that holds `number` unless it
/// is 0; the block's own reference stays with the tree.
inline std::pair<NTSTATUS, TreeNode> Insert(const TreeHandle& tree, std::u16string_view path,
                                            std::uint64_t number = 0, TreeNode base = {}) {
    TreeNode inserted(tree);
    inserted.node = std::exchange(base.node, nullptr);
    std::uint64_t* block = number != 0 ? tree.NewBlock(number) : nullptr;
    const UNICODE_STRING text = platform::Describe(path);
    const NTSTATUS status = ZPkDtInsert(tree.Get(), &text, block, &inserted.node);
    if (block != nullptr) ZPkDtReleaseContext(block);
    return {status, std::move(inserted)};
}

inline std::uint64_t Number(const TreeNode& node) {
    return node.block != nullptr ? *node.block : 0;
}
