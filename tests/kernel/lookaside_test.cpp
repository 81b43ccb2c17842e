#include "bugcheck_matchers.h"
#include "platform/kernel/address_poison.h"
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

constexpr ULONG kTag = MakeTag("Tla0");
constexpr SIZE_T kSize = 48;

/// One kind of list behind one face, so that each case runs on both.
struct PagedKind {
    using List = PAGED_LOOKASIDE_LIST;
    static constexpr const char* kAllocateName = "ExAllocateFromPagedLookasideList";
    static void Initialize(List* list, USHORT depth = 0) {
        ExInitializePagedLookasideList(list, nullptr, nullptr, 0, kSize, kTag, depth);
    }
    static void Delete(List* list) { ExDeletePagedLookasideList(list); }
    static PVOID Allocate(List* list) { return ExAllocateFromPagedLookasideList(list); }
    static void Free(List* list, PVOID block) { ExFreeToPagedLookasideList(list, block); }
};
struct NPagedKind {
    using List = NPAGED_LOOKASIDE_LIST;
    static constexpr const char* kAllocateName = "ExAllocateFromNPagedLookasideList";
    static void Initialize(List* list, USHORT depth = 0) {
        ExInitializeNPagedLookasideList(list, nullptr, nullptr, POOL_NX_ALLOCATION, kSize, kTag,
                                        depth);
    }
    static void Delete(List* list) { ExDeleteNPagedLookasideList(list); }
    static PVOID Allocate(List* list) { return ExAllocateFromNPagedLookasideList(list); }
    static void Free(List* list, PVOID block) { ExFreeToNPagedLookasideList(list, block); }
};

template <typename Kind>
class Lookaside : public testing::Test {
protected:
    ~Lookaside() override { EXPECT_EQ(QueryPoolUsage(kTag).blocks, 0U); }

    typename Kind::List list;
};
using Kinds = testing::Types<PagedKind, NPagedKind>;
TYPED_TEST_SUITE(Lookaside, Kinds);

TYPED_TEST(Lookaside, KeepsBlocksUpToItsDepthWithTheirContents) {
    constexpr USHORT kDepth = 3;
    TypeParam::Initialize(&this->list, kDepth);
    std::vector<PVOID> blocks;
    for (unsigned char i = 0; i < 5; ++i) {
        blocks.push_back(TypeParam::Allocate(&this->list));
        std::memset(blocks.back(), i, kSize);
    }
    for (PVOID block : blocks)
        TypeParam::Free(&this->list, block);
    EXPECT_EQ(QueryPoolUsage(kTag).blocks, kDepth);
    for (const unsigned char value : {2, 1, 0}) {
        auto* const block = static_cast<unsigned char*>(TypeParam::Allocate(&this->list));
        EXPECT_EQ(block[kSize - 1], value);
        EXPECT_EQ(block[sizeof(SLIST_ENTRY)], value);
        ExFreePoolWithTag(block, kTag);
        __atomic_fetch_add(&this->list.L.TotalFrees, 1, __ATOMIC_RELAXED);
    }
    TypeParam::Delete(&this->list);
}

TYPED_TEST(Lookaside, DeletedWithABlockOutStopsTheMachine) {
    TypeParam::Initialize(&this->list);
    const PVOID block = TypeParam::Allocate(&this->list);
    EXPECT_EQ(RuleBrokenBy([&] { TypeParam::Delete(&this->list); }),
              (BrokenRule{Rule::kLookasideLeaked, &this->list, kTag}));
    TypeParam::Free(&this->list, block);
    TypeParam::Delete(&this->list);
    EXPECT_EQ(RuleBrokenBy([&] { TypeParam::Allocate(&this->list); }),
              (BrokenRule{Rule::kPoolBadRequest, &this->list}));
}

TYPED_TEST(Lookaside, BlockGivenBackTwiceStopsTheMachine) {
    TypeParam::Initialize(&this->list);
    const PVOID block = TypeParam::Allocate(&this->list);
    TypeParam::Free(&this->list, block);
    const BrokenRule expected{Rule::kPoolDoubleFree, block, kTag};
    EXPECT_EQ(RuleBrokenBy([&] { TypeParam::Free(&this->list, block); }), expected);
    EXPECT_EQ(RuleBrokenBy([&] { ExFreePool(block); }), expected);
    // The machine stopped inside the free, after it was counted.
    __atomic_fetch_sub(&this->list.L.TotalFrees, 1, __ATOMIC_RELAXED);
    TypeParam::Delete(&this->list);
}

TYPED_TEST(Lookaside, PlannedFaultsHitCachedBlocksToo) {
    TypeParam::Initialize(&this->list);
    TypeParam::Free(&this->list, TypeParam::Allocate(&this->list));
    {
        const FaultPlan plan({.routine = TypeParam::kAllocateName, .tag = kTag, .nth = 2});
        PVOID const block = TypeParam::Allocate(&this->list);
        EXPECT_NE(block, nullptr);
        EXPECT_EQ(TypeParam::Allocate(&this->list), nullptr);
        EXPECT_TRUE(plan.Fired());
        TypeParam::Free(&this->list, block);
    }
    {
        // A list that must allocate asks once, under its own name.
        const FaultPlan plan({.routine = "*", .nth = 3});
        PVOID const first = TypeParam::Allocate(&this->list);
        PVOID const second = TypeParam::Allocate(&this->list);
        EXPECT_EQ(plan.MatchingCalls(), 2U);
        TypeParam::Free(&this->list, first);
        TypeParam::Free(&this->list, second);
    }
    TypeParam::Delete(&this->list);
}

TYPED_TEST(Lookaside, ThreadsNeverShareABlock) {
    constexpr int kThreads = 4;
    constexpr int kRounds = 3000;
    TypeParam::Initialize(&this->list, 6);
    std::vector<std::thread> threads;
    std::atomic<int> clashes{0};
    for (int thread = 0; thread < kThreads; ++thread) {
        threads.emplace_back([&, thread] {
            for (int round = 0; round < kRounds; ++round) {
                int* blocks[2];
                for (int*& block : blocks) {
                    block = static_cast<int*>(TypeParam::Allocate(&this->list));
                    *block = thread;
                }
                for (int* block : blocks) {
                    if (*block != thread) ++clashes;
                    TypeParam::Free(&this->list, block);
                }
            }
        });
    }
    for (std::thread& thread : threads)
        thread.join();
    EXPECT_EQ(clashes, 0);
    TypeParam::Delete(&this->list);
}

TEST(LookasideChecks, LevelsAndSizes) {
    PAGED_LOOKASIDE_LIST list;
    PagedKind::Initialize(&list);
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
    EXPECT_EQ(RuleBrokenBy(
                  [&] { ExInitializePagedLookasideList(&list, nullptr, nullptr, 0, 8, kTag, 0); }),
              (BrokenRule{Rule::kPoolBadRequest, &list, kTag}));
}

PVOID NTAPI CountingAllocate(POOL_TYPE type, SIZE_T size, ULONG tag) {
    EXPECT_EQ(type, NonPagedPoolNx);
    EXPECT_EQ(size, kSize);
    return ExAllocatePoolWithTag(type, size, tag + 1);
}

void NTAPI CountingFree(PVOID block) {
    ExFreePoolWithTag(block, kTag + 1);
}

TEST(LookasideChecks, OwnRoutinesAreUsedAndTheirFailureIsNoLeak) {
    NPAGED_LOOKASIDE_LIST list;
    ExInitializeNPagedLookasideList(&list, CountingAllocate, CountingFree, POOL_NX_ALLOCATION,
                                    kSize, kTag, 0);
    const PVOID block = ExAllocateFromNPagedLookasideList(&list);
    EXPECT_EQ(QueryPoolUsage(kTag + 1).blocks, 1U);
    {
        const FaultPlan plan({.routine = "ExAllocatePoolWithTag"});
        EXPECT_EQ(ExAllocateFromNPagedLookasideList(&list), nullptr);
    }
    ExFreeToNPagedLookasideList(&list, block);
    ExDeleteNPagedLookasideList(&list);
    EXPECT_EQ(QueryPoolUsage(kTag + 1).blocks, 0U);
}

TEST(InterlockedList, IsLastInFirstOutAndCountsItsDepth) {
    SLIST_HEADER head;
    SLIST_ENTRY entries[3];
    InitializeSListHead(&head);
    EXPECT_EQ(ExpInterlockedPopEntrySList(&head), nullptr);
    EXPECT_EQ(ExpInterlockedPushEntrySList(&head, &entries[0]), nullptr);
    EXPECT_EQ(ExpInterlockedPushEntrySList(&head, &entries[1]), &entries[0]);
    EXPECT_EQ(ExpInterlockedPushEntrySList(&head, &entries[2]), &entries[1]);
    EXPECT_EQ(QueryDepthSList(&head), 3);
    for (int i = 2; i >= 0; --i) {
        EXPECT_EQ(ExpInterlockedPopEntrySList(&head), &entries[i]);
    }
    EXPECT_EQ(QueryDepthSList(&head), 0);
    EXPECT_EQ(ExpInterlockedPopEntrySList(&head), nullptr);
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
