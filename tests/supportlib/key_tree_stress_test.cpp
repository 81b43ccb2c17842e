// The key-name tree with many threads at once.
#include "tree_handle.h"

#include <array>
#include <atomic>
#include <barrier>
#include <random>
#include <set>
#include <thread>

namespace {

using KeyTreeStressTest = LibraryTest;

constexpr int kThreads = 4;

template <typename Work>
void RunThreads(Work work) {
    std::vector<std::thread> threads;
    for (int i = 0; i < kThreads; ++i) {
        threads.emplace_back(work, i);
    }
    for (std::thread& thread : threads) {
        thread.join();
    }
}

TEST_F(KeyTreeStressTest, OneThreadInsertsAPathAndTheOthersGetItsNode) {
    const TreeHandle tree;
    constexpr int kRounds = 300;
    std::barrier start(kThreads);
    std::vector<std::array<ZPK_NODE*, kThreads>> nodes(kRounds);
    std::vector<std::atomic<int>> inserted(kRounds);
    RunThreads([&](int self) {
        for (int round = 0; round < kRounds; ++round) {
            // A new path of three components, of which some rounds share the first ones.
            const std::u16string path =
                platform::ToUtf16("\\R" + std::to_string(round / 10) + "\\S" +
                                  std::to_string(round / 3) + "\\T" + std::to_string(round));
            start.arrive_and_wait();
            auto [status, node] = Insert(tree, path, 1 + round);
            if (status == STATUS_SUCCESS) {
                inserted[round].fetch_add(1);
            } else {
                EXPECT_EQ(status, ZPK_STATUS_NODE_EXISTS);
            }
            nodes[round][self] = node.node;
        }
    });
    for (int round = 0; round < kRounds; ++round) {
        EXPECT_EQ(inserted[round].load(), 1) << "round " << round;
        for (ZPK_NODE* node : nodes[round]) {
            EXPECT_EQ(node, nodes[round][0]) << "round " << round;
        }
    }
    EXPECT_EQ(platform::QueryPoolUsage(kTestContextTag).blocks, static_cast<std::size_t>(kRounds));
}

TEST_F(KeyTreeStressTest, ReadersSeeARenamedSubtreeWithOldOrNewNames) {
    const TreeHandle tree;
    auto [s1, top] = Insert(tree, u"\\R\\First", 1);
    auto [s2, leaf] = Insert(tree, u"\\R\\First\\A\\B", 2);
    const std::set<std::u16string> names = {u"\\R\\First\\A\\B", u"\\R\\The second name\\A\\B"};
    std::atomic<bool> stop{false};
    std::atomic<int> readersAtWork{0};
    RunThreads([&](int self) {
        if (self == 0) {
            while (readersAtWork.load() != kThreads - 1)
                std::this_thread::yield();
            for (int i = 0; i < 2000; ++i) {
                EXPECT_EQ(top.Rename(i % 2 == 0 ? u"The second name" : u"First"), STATUS_SUCCESS);
            }
            stop = true;
            return;
        }
        for (int i = 0; !stop.load(); ++i) {
            EXPECT_TRUE(names.contains(leaf.Name()));
            // The subtree always has one of its paths, and its block with it.
            const TreeNode found = Lookup(tree, *std::next(names.begin(), i % 2));
            EXPECT_TRUE(found.rest.empty() ? found.node == leaf.node && Number(found) == 2
                                           : found.rest.ends_with(u"\\A\\B"));
            if (i == 0) readersAtWork.fetch_add(1);
        }
    });
    EXPECT_EQ(leaf.Name(), u"\\R\\First\\A\\B");
}

/// The way in which a client gives a path its node and block; the block's number is `number` for
/// whoever wins.
TreeNode FindOrInsert(const TreeHandle& tree, const std::u16string& path, std::uint64_t number,
                      std::atomic<int>& madeBlocks) {
    TreeNode node = Lookup(tree, path);
    if (node.node != nullptr && node.rest.empty() && node.block != nullptr) return node;
    std::uint64_t* block = tree.NewBlock(number);
    if (node.node == nullptr || !node.rest.empty()) {
        if (node.block != nullptr) ZPkDtReleaseContext(std::exchange(node.block, nullptr));
        const UNICODE_STRING rest = platform::Describe(node.rest);
        const NTSTATUS status = ZPkDtInsert(tree.Get(), &rest, block, &node.node);
        if (status == STATUS_SUCCESS) {
            madeBlocks.fetch_add(1);
            node.block = block;
            return node;
        }
        EXPECT_EQ(status, ZPK_STATUS_NODE_EXISTS);
    }
    if (ZPkDtInsertContext(tree.Get(), node.node, block)) {
        madeBlocks.fetch_add(1);
        node.block = block;
        return node;
    }
    ZPkDtReleaseContext(block);
    node.block = static_cast<std::uint64_t*>(ZPkDtGetContext(tree.Get(), node.node));
    EXPECT_NE(node.block, nullptr);
    return node;
}

TEST_F(KeyTreeStressTest, EverythingAtOnceLosesNothing) {
    constexpr int kSteps = 4000;
    constexpr int kHeld = 16;
    std::atomic<int> madeBlocks{0};
    std::atomic<int> deletions{0};
    std::atomic<int> renames{0};
    std::array<std::vector<TreeNode>, kThreads> held;
    {
        const TreeHandle tree;
        RunThreads([&](int self) {
            std::minstd_rand random(self + 1);
            const auto pick = [&](int count) { return static_cast<int>(random() % count); };
            held[self].resize(kHeld);
            for (int step = 0; step < kSteps; ++step) {
                TreeNode& slot = held[self][pick(kHeld)];
                const int action = pick(20);
                if (action < 12 || slot.node == nullptr) {
                    std::string path;
                    for (int depth = 1 + pick(4); depth != 0; --depth) {
                        path += "\\Key " + std::to_string(pick(4));
                    }
                    // What was held is released.
                    slot = FindOrInsert(tree, platform::ToUtf16(path), 1000 + self, madeBlocks);
                } else if (action < 16) {
                    EXPECT_TRUE(slot.Name().starts_with(u"\\Key "));
                    EXPECT_TRUE(Number(slot) >= 1000 && Number(slot) < 1000 + kThreads);
                } else if (action < 18) {
                    const std::string name = "Key " + std::to_string(pick(6));
                    EXPECT_EQ(slot.Rename(platform::ToUtf16(name)), STATUS_SUCCESS);
                    renames.fetch_add(1);
                } else if (slot.Delete() == STATUS_SUCCESS) {
                    deletions.fetch_add(1);
                }
            }
        });
        // The interleavings that this is about did happen.
        EXPECT_GT(madeBlocks.load(), 100);
        EXPECT_GT(deletions.load(), 100);
        EXPECT_GT(renames.load(), 100);

        std::set<ZPK_NODE*> nodes;
        for (auto& nodesOfThread : held) {
            for (TreeNode& each : nodesOfThread) {
                if (each.node == nullptr) continue;
                // Whoever holds a node holds the block that all its holders see.
                void* block = ZPkDtGetContext(tree.Get(), each.node);
                EXPECT_EQ(block, each.block);
                ZPkDtReleaseContext(block);
                // The path leads to this node or, if it was taken out, to another one or to none.
                const TreeNode found = Lookup(tree, each.Name());
                if (found.node == each.node) nodes.insert(each.node);
            }
            nodesOfThread.clear();
        }
        EXPECT_FALSE(nodes.empty());
    }
    EXPECT_EQ(platform::QueryPoolUsage(kTestContextTag).blocks, 0u);
    EXPECT_EQ(platform::QueryPoolUsage(zpklib::kNodeTag).blocks, 0u);
    EXPECT_EQ(platform::QueryPoolUsage(zpklib::kPathTag).blocks, 0u);
}

}  // namespace
