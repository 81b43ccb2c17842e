// Lookaside lists of both kinds, and the interlocked lists under them.
#include "bugcheck_matchers.h"
#include "platform/kernel/fault_injection.h"
#include "platform/machine.h"

#include <gtest/gtest.h>

#include <atomic>
#include <cstring>
#include <set>
#include <thread>
#include <vector>

namespace platform {
namespace {

constexpr ULONG kLookasideTag = MakeTag("Tla0");
constexpr SIZE_T kSize = 48;

/// One list behind one face, so that each case runs on both kinds.
class List {
public:
    explicit List(bool isPaged, USHORT depth = 0) : isPaged_(isPaged) {
        if (isPaged_) {
            ExInitializePagedLookasideList(&paged_, nullptr, nullptr, 0, kSize, kLookasideTag,
                                           depth);
        } else {
            ExInitializeNPagedLookasideList(&nonPaged_, nullptr, nullptr, POOL_NX_ALLOCATION, kSize,
                                            kLookasideTag, depth);
        }
    }
    ~List() { EXPECT_EQ(QueryPoolUsage(kLookasideTag).blocks, 0U); }
    List(const List&) = delete;
    List& operator=(const List&) = delete;

    void Delete() {
        isPaged_ ? ExDeletePagedLookasideList(&paged_) : ExDeleteNPagedLookasideList(&nonPaged_);
    }
    PVOID Allocate() {
        return isPaged_ ? ExAllocateFromPagedLookasideList(&paged_)
                        : ExAllocateFromNPagedLookasideList(&nonPaged_);
    }
    void Free(PVOID block) {
        isPaged_ ? ExFreeToPagedLookasideList(&paged_, block)
                 : ExFreeToNPagedLookasideList(&nonPaged_, block);
    }
    const char* AllocateName() const {
        return isPaged_ ? "ExAllocateFromPagedLookasideList" : "ExAllocateFromNPagedLookasideList";
    }
    const void* Address() const {
        return isPaged_ ? static_cast<const void*>(&paged_) : &nonPaged_;
    }
    /// Of blocks that came back other than through the list.
    void CountFrees(LONG count) {
        __atomic_fetch_add(isPaged_ ? &paged_.L.TotalFrees : &nonPaged_.L.TotalFrees, count,
                           __ATOMIC_RELAXED);
    }

private:
    const bool isPaged_;
    PAGED_LOOKASIDE_LIST paged_{};
    NPAGED_LOOKASIDE_LIST nonPaged_{};
};

TEST(Lookaside, KeepsBlocksUpToItsDepthWithTheirContents) {
    for (const bool isPaged : {true, false}) {
        constexpr USHORT kDepth = 3;
        List list(isPaged, kDepth);
        std::vector<PVOID> blocks;
        for (unsigned char i = 0; i < 5; ++i) {
            blocks.push_back(list.Allocate());
            std::memset(blocks.back(), i, kSize);
        }
        for (PVOID block : blocks)
            list.Free(block);
        EXPECT_EQ(QueryPoolUsage(kLookasideTag).blocks, kDepth);
        for (const unsigned char value : {2, 1, 0}) {
            auto* const block = static_cast<unsigned char*>(list.Allocate());
            EXPECT_EQ(block[kSize - 1], value);
            EXPECT_EQ(block[sizeof(SLIST_ENTRY)], value);
            ExFreePoolWithTag(block, kLookasideTag);
        }
        list.CountFrees(kDepth);
        list.Delete();
    }
}

TEST(Lookaside, WrongUseStopsTheMachine) {
    for (const bool isPaged : {true, false}) {
        List list(isPaged);
        const PVOID block = list.Allocate();
        EXPECT_EQ(RuleBrokenBy([&] { list.Delete(); }),
                  (BrokenRule{Rule::kLookasideLeaked, list.Address(), kLookasideTag}));
        list.Free(block);
        const BrokenRule twice{Rule::kPoolDoubleFree, block, kLookasideTag};
        EXPECT_EQ(RuleBrokenBy([&] { list.Free(block); }), twice);
        EXPECT_EQ(RuleBrokenBy([&] { ExFreePool(block); }), twice);
        list.CountFrees(-1);  // the machine stopped inside the free, after it was counted
        list.Delete();
        EXPECT_EQ(RuleBrokenBy([&] { list.Allocate(); }),
                  (BrokenRule{Rule::kPoolBadRequest, list.Address()}));
    }
}

TEST(Lookaside, PlannedFaultsHitCachedBlocksToo) {
    for (const bool isPaged : {true, false}) {
        List list(isPaged);
        list.Free(list.Allocate());
        {
            const FaultPlan plan({.routine = list.AllocateName(), .tag = kLookasideTag, .nth = 2});
            PVOID const block = list.Allocate();
            EXPECT_NE(block, nullptr);
            EXPECT_EQ(list.Allocate(), nullptr);
            EXPECT_TRUE(plan.Fired());
            list.Free(block);
        }
        {
            // A list that must allocate asks once, under its own name.
            const FaultPlan plan({.routine = "*", .nth = 3});
            PVOID const first = list.Allocate();
            PVOID const second = list.Allocate();
            EXPECT_EQ(plan.MatchingCalls(), 2U);
            list.Free(first);
            list.Free(second);
        }
        list.Delete();
    }
}

TEST(Lookaside, ThreadsNeverShareABlock) {
    constexpr int kThreads = 4;
    constexpr int kRounds = 3000;
    for (const bool isPaged : {true, false}) {
        List list(isPaged, 6);
        std::vector<std::thread> threads;
        std::atomic<int> clashes{0};
        for (int thread = 0; thread < kThreads; ++thread) {
            threads.emplace_back([&, thread] {
                for (int round = 0; round < kRounds; ++round) {
                    int* blocks[2];
                    for (int*& block : blocks) {
                        block = static_cast<int*>(list.Allocate());
                        *block = thread;
                    }
                    for (int* block : blocks) {
                        if (*block != thread) ++clashes;
                        list.Free(block);
                    }
                }
            });
        }
        for (std::thread& thread : threads)
            thread.join();
        EXPECT_EQ(clashes, 0);
        list.Delete();
    }
}

TEST(Lookaside, PagedListsNeedTheirLevelAndRoomForALink) {
    PAGED_LOOKASIDE_LIST list;
    ExInitializePagedLookasideList(&list, nullptr, nullptr, 0, kSize, kLookasideTag, 0);
    const std::function<void()> actions[] = {
        [&] { ExAllocateFromPagedLookasideList(&list); },
        [&] { ExFreeToPagedLookasideList(&list, nullptr); },
        [&] { ExDeletePagedLookasideList(&list); },
    };
    for (const auto& action : actions) {
        EXPECT_EQ(RuleBrokenBy([&] {
                      KfRaiseIrql(DISPATCH_LEVEL);
                      action();
                  }),
                  BrokenRule{Rule::kIrqlTooHigh});
    }
    ExDeletePagedLookasideList(&list);
    EXPECT_EQ(RuleBrokenBy([&] {
                  ExInitializePagedLookasideList(&list, nullptr, nullptr, 0, 8, kLookasideTag, 0);
              }),
              (BrokenRule{Rule::kPoolBadRequest, &list, kLookasideTag}));
}

TEST(InterlockedList, NoEntryIsLostOrPoppedTwice) {
    constexpr int kThreads = 4;
    constexpr int kRounds = 20'000;
    SLIST_HEADER head;
    InitializeSListHead(&head);
    std::vector<SLIST_ENTRY> entries(5);
    for (SLIST_ENTRY& entry : entries)
        ExpInterlockedPushEntrySList(&head, &entry);
    std::vector<std::thread> threads;
    for (int thread = 0; thread < kThreads; ++thread) {
        threads.emplace_back([&head] {
            for (int round = 0; round < kRounds; ++round) {
                PSLIST_ENTRY const first = ExpInterlockedPopEntrySList(&head);
                PSLIST_ENTRY const second = ExpInterlockedPopEntrySList(&head);
                for (PSLIST_ENTRY entry : {first, second}) {
                    if (entry != nullptr) ExpInterlockedPushEntrySList(&head, entry);
                }
            }
        });
    }
    for (std::thread& thread : threads)
        thread.join();
    EXPECT_EQ(QueryDepthSList(&head), entries.size());
    std::set<PSLIST_ENTRY> popped;
    while (PSLIST_ENTRY entry = ExpInterlockedPopEntrySList(&head)) {
        EXPECT_TRUE(popped.insert(entry).second);
    }
    EXPECT_EQ(popped.size(), entries.size());
}

}  // namespace
}  // namespace platform
