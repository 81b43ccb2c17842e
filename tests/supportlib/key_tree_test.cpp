// What the key-name tree promises to one thread.
#include "supportlib/key_tree.h"

#include "tree_handle.h"

namespace {

using KeyTreeTest = LibraryTest;

constexpr char16_t kDeep[] = u"\\Registry\\Machine\\SOFTWARE\\Vendor\\App";

TEST_F(KeyTreeTest, LookupFindsTheLongestLeadingPart) {
    const TreeHandle tree;
    for (const auto* path : {kDeep, u"\\Registry\\User\\S-1\\Gr\u00FC\u00DFe\\\u03B1\u03B2"}) {
        EXPECT_EQ(Insert(tree, path).first, STATUS_SUCCESS);
    }
    const struct {
        std::u16string_view path;
        std::u16string_view found;  // empty: nothing
        std::u16string_view rest;
    } cases[] = {
        {kDeep, kDeep, u""},
        {u"\\REGISTRY\\machine\\Software\\VENDOR\\aPP", kDeep, u""},
        {u"\\Registry\\User\\s-1\\GR\u00DC\u00DFE\\\u0391\u0392",
         u"\\Registry\\User\\S-1\\Gr\u00FC\u00DFe\\\u03B1\u03B2", u""},
        // Nodes that were made on the way count, components match as a whole.
        {u"\\Registry\\Machine\\SOFTWARE", u"\\Registry\\Machine\\SOFTWARE", u""},
        {u"\\Registry\\Machine\\SOFTWAREX", u"\\Registry\\Machine", u"\\SOFTWAREX"},
        {u"\\Registry\\Machine\\SOFT", u"\\Registry\\Machine", u"\\SOFT"},
        {u"\\Registry\\Machine\\SYSTEM\\A\\B", u"\\Registry\\Machine", u"\\SYSTEM\\A\\B"},
        {u"\\Registry\\Machine\\SOFTWARE\\Vendor\\App\\x", kDeep, u"\\x"},
        {u"\\Other\\Machine", u"", u"\\Other\\Machine"},
        {u"\\Registr", u"", u"\\Registr"},
        {u"", u"", u""},
        {u"\\", u"", u"\\"},
        // Backslashes that do not count.
        {u"\\Registry\\Machine\\", u"\\Registry\\Machine", u""},
        {u"\\\\Registry\\\\Machine", u"\\Registry\\Machine", u""},
        {u"Registry\\Machine", u"\\Registry\\Machine", u""},
        {u"\\Registry\\\\Machine\\\\x\\y\\", u"\\Registry\\Machine", u"\\\\x\\y\\"},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(platform::ToUtf8(c.path));
        const TreeNode found = Lookup(tree, c.path);
        EXPECT_EQ(found.node != nullptr, !c.found.empty());
        EXPECT_EQ(platform::ToUtf8(found.rest), platform::ToUtf8(c.rest));
        if (found.node != nullptr) {
            EXPECT_EQ(platform::ToUtf8(found.Name()), platform::ToUtf8(c.found));
        }
    }
}

TEST_F(KeyTreeTest, TheRestInsertedBelowTheFoundNodeMakesThePathFindable) {
    const TreeHandle tree;
    EXPECT_EQ(Insert(tree, u"\\A\\B", 1).first, STATUS_SUCCESS);
    TreeNode part = Lookup(tree, u"\\a\\b\\C\\D");
    EXPECT_EQ(Number(part), 1u);
    const std::u16string rest = part.rest;
    auto [status, inserted] = Insert(tree, rest, 2, std::move(part));
    EXPECT_EQ(status, STATUS_SUCCESS);
    // The spelling of a component is the one that it came in first.
    EXPECT_EQ(inserted.Name(), u"\\A\\B\\C\\D");
    const TreeNode whole = Lookup(tree, u"\\A\\B\\c\\d");
    EXPECT_EQ(whole.node, inserted.node);
    EXPECT_EQ(whole.rest, u"");
    EXPECT_EQ(Number(whole), 2u);
    EXPECT_EQ(Number(Lookup(tree, u"\\A\\B\\C")), 0u);
}

TEST_F(KeyTreeTest, InsertingAPathThatIsThereGivesItsNode) {
    const TreeHandle tree;
    auto [status, first] = Insert(tree, u"\\A\\B", 1);
    EXPECT_EQ(status, STATUS_SUCCESS);
    const std::pair again = Insert(tree, u"\\a\\b\\", 2);
    EXPECT_EQ(again.first, ZPK_STATUS_NODE_EXISTS);
    EXPECT_EQ(again.second.node, first.node);
    EXPECT_EQ(Number(Lookup(tree, u"\\A\\B")), 1u);

    // A node that is on the way to another has no block until it is given one.
    const std::pair parent = Insert(tree, u"\\A", 3);
    EXPECT_EQ(parent.first, ZPK_STATUS_NODE_EXISTS);
    EXPECT_EQ(Number(Lookup(tree, u"\\A")), 0u);

    // Nothing below a node is the node.
    const std::pair self = Insert(tree, u"", 4, Lookup(tree, u"\\A\\B"));
    EXPECT_EQ(self.first, ZPK_STATUS_NODE_EXISTS);
    EXPECT_EQ(self.second.node, first.node);
}

TEST_F(KeyTreeTest, PathsThatNoKeyCanHaveAreRefused) {
    const TreeHandle tree;
    std::pair none = Insert(tree, u"\\\\", 1);
    EXPECT_EQ(none.first, STATUS_INVALID_PARAMETER);
    EXPECT_EQ(none.second.node, nullptr);

    // The longest path that a counted string holds, and one component more below it.
    const std::u16string longest = u"\\" + std::u16string(32766, u'k');
    EXPECT_EQ(Insert(tree, longest, 1).first, STATUS_SUCCESS);
    EXPECT_EQ(Lookup(tree, longest).Name(), longest);
    std::pair beyond = Insert(tree, u"\\x", 1, Lookup(tree, longest));
    EXPECT_EQ(beyond.first, STATUS_NAME_TOO_LONG);
    EXPECT_EQ(beyond.second.node, nullptr);
}

TEST_F(KeyTreeTest, NameTellsTheRoomItNeeds) {
    const TreeHandle tree;
    auto [status, node] = Insert(tree, u"\\Registry\\Machine");
    const USHORT needed = 17 * sizeof(WCHAR);
    UNICODE_STRING name = {};
    EXPECT_EQ(ZPkDtGetName(tree.Get(), node.node, &name), STATUS_BUFFER_TOO_SMALL);
    EXPECT_EQ(name.MaximumLength, needed);

    WCHAR buffer[18] = {};
    buffer[17] = L'!';
    name = {0, needed - 1, buffer};
    EXPECT_EQ(ZPkDtGetName(tree.Get(), node.node, &name), STATUS_BUFFER_TOO_SMALL);
    EXPECT_EQ(name.MaximumLength, needed);
    EXPECT_EQ(ZPkDtGetName(tree.Get(), node.node, &name), STATUS_SUCCESS);
    EXPECT_EQ(name.Length, needed);
    EXPECT_EQ(platform::View(name), u"\\Registry\\Machine");
    EXPECT_EQ(buffer[17], L'!');
}

TEST_F(KeyTreeTest, ANodeTakesOneBlockAndKeepsIt) {
    const TreeHandle tree;
    auto [status, node] = Insert(tree, u"\\A");
    EXPECT_EQ(ZPkDtGetContext(tree.Get(), node.node), nullptr);
    std::uint64_t* first = tree.NewBlock(1);
    std::uint64_t* second = tree.NewBlock(2);
    EXPECT_TRUE(ZPkDtInsertContext(tree.Get(), node.node, first));
    EXPECT_FALSE(ZPkDtInsertContext(tree.Get(), node.node, second));
    EXPECT_EQ(ZPkDtGetContext(tree.Get(), node.node), first);
    ZPkDtReleaseContext(first);
    ZPkDtReleaseContext(first);
    ZPkDtReleaseContext(second);
    EXPECT_EQ(platform::QueryPoolUsage(kTestContextTag).blocks, 1u);
    EXPECT_EQ(Number(Lookup(tree, u"\\A")), 1u);
}

TEST_F(KeyTreeTest, ABlockOutlivesItsNodeWhileItIsReferenced) {
    TreeNode held;
    {
        const TreeHandle tree;
        EXPECT_EQ(Insert(tree, u"\\A", 7).first, STATUS_SUCCESS);
        // Nobody references the node now; it stays all the same.
        held = Lookup(tree, u"\\A");
        EXPECT_EQ(held.Delete(), STATUS_SUCCESS);
        ZPkDtReleaseNode(tree.Get(), std::exchange(held.node, nullptr));
        EXPECT_EQ(platform::QueryPoolUsage(kTestContextTag).blocks, 1u);
        EXPECT_EQ(Number(held), 7u);
    }
}

TEST_F(KeyTreeTest, DeletionTakesASubtreeOutButKeepsReferences) {
    const TreeHandle tree;
    auto [s1, top] = Insert(tree, u"\\R\\A", 1);
    auto [s2, below] = Insert(tree, u"\\R\\A\\B\\C", 2);
    EXPECT_EQ(top.Delete(), STATUS_SUCCESS);
    EXPECT_EQ(Lookup(tree, u"\\R\\A\\B\\C").rest, u"\\A\\B\\C");
    EXPECT_EQ(top.Name(), u"\\R\\A");
    EXPECT_EQ(below.Name(), u"\\R\\A\\B\\C");
    void* block = ZPkDtGetContext(tree.Get(), below.node);
    EXPECT_EQ(*static_cast<std::uint64_t*>(block), 2u);
    ZPkDtReleaseContext(block);
    EXPECT_EQ(top.Delete(), STATUS_NOT_FOUND);
    EXPECT_EQ(below.Delete(), STATUS_NOT_FOUND);

    // A key that is made again is another key.
    auto [s3, again] = Insert(tree, u"\\R\\A", 3);
    EXPECT_EQ(s3, STATUS_SUCCESS);
    EXPECT_NE(again.node, top.node);
    EXPECT_EQ(Number(Lookup(tree, u"\\R\\A")), 3u);

    // Below a node that is gone the whole path is made.
    auto [s4, leaf] = Insert(tree, u"\\D", 4, std::move(below));
    EXPECT_EQ(s4, STATUS_SUCCESS);
    EXPECT_EQ(leaf.Name(), u"\\R\\A\\B\\C\\D");
    const TreeNode parent = Lookup(tree, u"\\R\\A\\B\\C");
    EXPECT_EQ(parent.rest, u"");
    EXPECT_NE(parent.node, nullptr);
    EXPECT_EQ(Number(parent), 0u);
}

TEST_F(KeyTreeTest, RenamingMovesTheWholeSubtree) {
    const TreeHandle tree;
    auto [s1, top] = Insert(tree, u"\\R\\Old", 1);
    auto [s2, child] = Insert(tree, u"\\R\\Old\\Child", 2);
    auto [s3, leaf] = Insert(tree, u"\\R\\Old\\Child\\Leaf", 3);
    auto [s4, sibling] = Insert(tree, u"\\R\\OldX", 4);
    for (const auto* name : {u"A much longer name", u"x", u"X"}) {
        SCOPED_TRACE(platform::ToUtf8(name));
        const std::u16string path = u"\\R\\" + std::u16string(name);
        EXPECT_EQ(top.Rename(name), STATUS_SUCCESS);
        EXPECT_EQ(top.Name(), path);
        EXPECT_EQ(child.Name(), path + u"\\Child");
        EXPECT_EQ(leaf.Name(), path + u"\\Child\\Leaf");
        EXPECT_EQ(sibling.Name(), u"\\R\\OldX");
        EXPECT_EQ(Number(Lookup(tree, path)), 1u);
        EXPECT_EQ(Number(Lookup(tree, path + u"\\child")), 2u);
        EXPECT_EQ(Number(Lookup(tree, path + u"\\child\\leaf")), 3u);
        EXPECT_EQ(Lookup(tree, u"\\R\\Old\\Child").rest, u"\\Old\\Child");
    }
    EXPECT_EQ(Number(Lookup(tree, u"\\R\\OLDX")), 4u);
}

TEST_F(KeyTreeTest, RenamingOverALeftNodeTakesThatNodeOut) {
    const TreeHandle tree;
    auto [s1, stale] = Insert(tree, u"\\R\\New", 1);
    auto [s2, below] = Insert(tree, u"\\R\\New\\Below", 2);
    auto [s3, renamed] = Insert(tree, u"\\R\\Old", 3);
    EXPECT_EQ(renamed.Rename(u"NEW"), STATUS_SUCCESS);
    const TreeNode found = Lookup(tree, u"\\R\\new\\below");
    EXPECT_EQ(found.node, renamed.node);
    EXPECT_EQ(found.rest, u"\\below");
    EXPECT_EQ(stale.Name(), u"\\R\\New");
    EXPECT_EQ(stale.Delete(), STATUS_NOT_FOUND);
    EXPECT_EQ(renamed.Name(), u"\\R\\NEW");
}

TEST_F(KeyTreeTest, ANodeThatWasDeletedCanBeRenamedForItself) {
    const TreeHandle tree;
    auto [s1, node] = Insert(tree, u"\\R\\A", 1);
    EXPECT_EQ(node.Delete(), STATUS_SUCCESS);
    auto [s2, other] = Insert(tree, u"\\R\\B", 2);
    EXPECT_EQ(node.Rename(u"B"), STATUS_SUCCESS);
    EXPECT_EQ(node.Name(), u"\\R\\B");
    EXPECT_EQ(Lookup(tree, u"\\R\\B").node, other.node);
}

TEST_F(KeyTreeTest, RefusedRenamesChangeNothing) {
    const TreeHandle tree;
    auto [s1, node] = Insert(tree, u"\\R\\A", 1);
    const std::u16string deepest(32766 - 6, u'd');
    auto [s2, deep] = Insert(tree, u"\\R\\A\\" + deepest, 2);
    EXPECT_EQ(s2, STATUS_SUCCESS);
    const ZPK_NODE* before = node.node;
    const struct {
        std::u16string_view name;
        NTSTATUS status;
    } cases[] = {
        {u"", STATUS_OBJECT_NAME_INVALID},
        {u"B\\C", STATUS_OBJECT_NAME_INVALID},
        {u"\\B", STATUS_OBJECT_NAME_INVALID},
        {u"Too long for the node below", STATUS_NAME_TOO_LONG},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(platform::ToUtf8(c.name));
        EXPECT_EQ(node.Rename(c.name), c.status);
        EXPECT_EQ(node.node, before);
        EXPECT_EQ(node.Name(), u"\\R\\A");
        EXPECT_EQ(Number(Lookup(tree, u"\\R\\A\\" + deepest)), 2u);
    }
}

TEST_F(KeyTreeTest, AGrownTreeKeepsEveryPath) {
    const TreeHandle tree;
    constexpr int kKeys = 5000;
    const auto path = [](int i) {
        return u"\\R\\" +
               platform::ToUtf16("Group " + std::to_string(i % 70) + "\\Key " + std::to_string(i));
    };
    for (int i = 0; i < kKeys; ++i) {
        ASSERT_EQ(Insert(tree, path(i), i + 1).first, STATUS_SUCCESS);
    }
    for (int i = 0; i < kKeys; ++i) {
        const TreeNode found = Lookup(tree, path(i));
        ASSERT_EQ(found.rest, u"");
        ASSERT_EQ(Number(found), static_cast<std::uint64_t>(i + 1));
    }
}

TEST_F(KeyTreeTest, OnlyIdleLeavesLeaveATreeThatIsTooLarge) {
    const TreeHandle tree;
    auto [s1, held] = Insert(tree, u"\\Held\\Parent\\Leaf", 1);
    EXPECT_EQ(Insert(tree, u"\\Asked for", 2).first, STATUS_SUCCESS);
    constexpr std::uint32_t kExtra = 20'000;
    for (std::uint32_t i = 0; i < zpklib::kNodeLimit + kExtra; ++i) {
        const std::string name = "\\Many\\" + std::to_string(i);
        ASSERT_EQ(Insert(tree, platform::ToUtf16(name)).first, STATUS_SUCCESS);
        if (i % 1000 == 0) {
            ASSERT_EQ(Number(Lookup(tree, u"\\Asked for")), 2u);
        }
    }
    // A few that were given up wait to be freed together.
    EXPECT_LE(platform::QueryPoolUsage(zpklib::kNodeTag).blocks, zpklib::kNodeLimit + 100);
    EXPECT_EQ(Number(Lookup(tree, u"\\Held\\Parent\\Leaf")), 1u);
    EXPECT_EQ(Lookup(tree, u"\\Held\\Parent").rest, u"");
    EXPECT_EQ(Lookup(tree, u"\\Many\\0").rest, u"\\0");
}

TEST_F(KeyTreeTest, AllocationFailuresLeaveTheTreeAsItWas) {
    const platform::PlannedFault fault = {.routine = "ExAllocatePoolWithTag"};
    EXPECT_EQ(WalkFaults(fault,
                         [] {
                             KeyTreeConfig config = {};
                             ZPK_KEY_TREE* made = nullptr;
                             const NTSTATUS status =
                                 ZPkDtInitialize(&config, ZPK_TREE_IGNORE_CASE, &made);
                             if (made != nullptr) ZPkDtDestroy(made);
                             return status;
                         }),
              2);

    const TreeHandle tree;
    EXPECT_EQ(Insert(tree, u"\\A").first, STATUS_SUCCESS);
    // The node, two more above it.
    EXPECT_EQ(WalkFaults(fault,
                         [&] {
                             auto [status, node] = Insert(tree, u"\\A\\B\\C\\D", 0);
                             if (!NT_SUCCESS(status)) {
                                 EXPECT_EQ(node.node, nullptr);
                                 const platform::NoFaults noFaults;
                                 EXPECT_EQ(Lookup(tree, u"\\A\\B").rest, u"\\B");
                             }
                             return status;
                         }),
              3);
    // The paths of the node and of two below it.
    TreeNode top = Lookup(tree, u"\\A\\B");
    EXPECT_EQ(WalkFaults(fault,
                         [&] {
                             const NTSTATUS status = top.Rename(u"New");
                             if (!NT_SUCCESS(status)) {
                                 const platform::NoFaults noFaults;
                                 EXPECT_EQ(top.Name(), u"\\A\\B");
                                 EXPECT_EQ(Lookup(tree, u"\\A\\B\\C\\D").rest, u"");
                             }
                             return status;
                         }),
              3);
    // A block, and the copy that a lookup makes of a path with too many backslashes.
    EXPECT_EQ(WalkFaults(fault,
                         [&] {
                             void* block = ZPkDtAllocateContext(tree.Get(), 0);
                             if (block == nullptr) return STATUS_NO_MEMORY;
                             ZPkDtReleaseContext(block);
                             return STATUS_SUCCESS;
                         }),
              1);
    EXPECT_EQ(WalkFaults(fault,
                         [&] {
                             const TreeNode found = Lookup(tree, u"\\A\\\\New");
                             return found.node != nullptr ? STATUS_SUCCESS : STATUS_NO_MEMORY;
                         }),
              1);
}

}  // namespace
