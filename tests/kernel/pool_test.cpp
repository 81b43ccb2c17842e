#include "platform/kernel/pool.h"

#include "bugcheck_matchers.h"
#include "platform/kernel/address_poison.h"
#include "platform/machine.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cstring>
#include <thread>
#include <vector>

namespace platform {
namespace {

constexpr ULONG kPoolTag = MakeTag("Tpl0");
constexpr ULONG kOtherPoolTag = MakeTag("Tpl1");
/// Of blocks that a machine which stops in the middle of a free leaves behind.
constexpr ULONG kDamagedTag = MakeTag("Tpl2");

unsigned char* Allocate(std::size_t size, POOL_TYPE type = NonPagedPoolNx, ULONG tag = kPoolTag) {
    return static_cast<unsigned char*>(ExAllocatePoolWithTag(type, size, tag));
}

TEST(Pool, BlocksAreAlignedDistinctAndCountedByTag) {
    for (const bool verify : {true, false}) {
        EnableVerifier(verify);
        std::vector<unsigned char*> blocks;
        std::size_t bytes = 0;
        for (std::size_t size = 1; size < 600; size += 7) {
            blocks.push_back(Allocate(size));
            EXPECT_EQ(reinterpret_cast<std::uintptr_t>(blocks.back()) % 16, 0U);
            std::memset(blocks.back(), static_cast<int>(size), size);
            bytes += size;
        }
        EXPECT_EQ(QueryPoolUsage(kPoolTag).blocks, blocks.size());
        EXPECT_EQ(QueryPoolUsage(kPoolTag).bytes, bytes);
        const std::vector<TagUsage> list = ListPoolUsage();
        EXPECT_TRUE(std::any_of(list.begin(), list.end(),
                                [](const TagUsage& usage) { return usage.tag == kPoolTag; }));
        for (std::size_t i = 0; i < blocks.size(); ++i) {
            EXPECT_EQ(blocks[i][i * 7], static_cast<unsigned char>(1 + i * 7));
            ExFreePoolWithTag(blocks[i], i % 2 == 0 ? kPoolTag : 0);
        }
        EXPECT_EQ(QueryPoolUsage(kPoolTag).blocks, 0U);
        EXPECT_EQ(QueryPoolUsage(kPoolTag).bytes, 0U);
    }
    EnableVerifier(true);
}

TEST(Pool, ANewBlockIsNotZeroAndThereIsNoneOfAnySize) {
    unsigned char* const block = Allocate(40);
    EXPECT_TRUE(std::all_of(block, block + 40, [](unsigned char byte) { return byte == 0xCD; }));
    ExFreePool(block);
    EXPECT_EQ(Allocate(SIZE_MAX), nullptr);
    EXPECT_EQ(Allocate(SIZE_MAX / 2), nullptr);
    EXPECT_EQ(QueryPoolUsage(kPoolTag).blocks, 0U);
}

TEST(Pool, WrongRequestsStopTheMachine) {
    void* const block = Allocate(32);
    void* const freed = Allocate(32);
    ExFreePoolWithTag(freed, kPoolTag);
    void* const paged = Allocate(32, PagedPool);
    int local = 0;
    void* const inside = static_cast<char*>(block) + 16;
    const struct {
        const char* what;
        std::function<void()> action;
        BrokenRule expected;
        KIRQL level = PASSIVE_LEVEL;
    } rows[] = {
        // clang-format off
        {"wrong tag", [&] { ExFreePoolWithTag(block, kOtherPoolTag); }, {Rule::kPoolWrongTag, block, kPoolTag}},
        {"freed twice", [&] { ExFreePoolWithTag(freed, kPoolTag); }, {Rule::kPoolDoubleFree, freed, kPoolTag}},
        {"freed twice, no tag", [&] { ExFreePool(freed); }, {Rule::kPoolDoubleFree, freed, kPoolTag}},
        {"not a block", [&] { ExFreePoolWithTag(&local, kPoolTag); }, {Rule::kPoolDoubleFree, &local, kPoolTag}},
        {"inside", [&] { ExFreePoolWithTag(inside, kPoolTag); }, {Rule::kPoolDoubleFree, inside, kPoolTag}},
        {"null", [] { ExFreePool(nullptr); }, {Rule::kPoolDoubleFree}},
        {"zero bytes", [] { Allocate(0); }, {Rule::kPoolBadRequest, nullptr, kPoolTag}},
        {"no tag", [] { ExAllocatePoolWithTag(PagedPool, 8, 0); }, {Rule::kPoolBadRequest}},
        {"no type", [] { Allocate(8, static_cast<POOL_TYPE>(5)); }, {Rule::kPoolBadRequest, nullptr, kPoolTag}},
        {"paged, raised", [] { Allocate(8, PagedPool); }, {Rule::kIrqlTooHigh}, DISPATCH_LEVEL},
        {"paged freed, raised", [&] { ExFreePool(paged); }, {Rule::kIrqlTooHigh}, DISPATCH_LEVEL},
        // clang-format on
    };
    for (const auto& row : rows) {
        const auto action = [&row] {
            KfRaiseIrql(row.level);
            row.action();
        };
        EXPECT_EQ(RuleBrokenBy(action), row.expected) << row.what;
        EXPECT_EQ(KeGetCurrentIrql(), PASSIVE_LEVEL) << row.what;
    }
    // A refused free leaves the block as it was.
    ExFreePoolWithTag(block, kPoolTag);
    ExFreePoolWithTag(paged, kPoolTag);
    const KIRQL old = KfRaiseIrql(DISPATCH_LEVEL);
    ExFreePool(Allocate(8));
    KeLowerIrql(old);
    EXPECT_EQ(QueryPoolUsage(kPoolTag).blocks, 0U);
}

// The address sanitizer ends the process at the stray access instead.
TEST(PoolDamage, WritesOutsideABlockAreFound) {
    if (kAddressSanitizer) GTEST_SKIP();
    volatile unsigned char* const block = Allocate(24);
    auto* const plain = const_cast<unsigned char*>(block);
    for (const int at : {24, 39, -1}) {
        const unsigned char before = block[at];
        block[at] = static_cast<unsigned char>(~before);
        const BrokenRule expected{Rule::kPoolCorrupted, plain, kPoolTag};
        EXPECT_EQ(RuleBrokenBy([plain] { ExFreePoolWithTag(plain, kPoolTag); }), expected) << at;
        EXPECT_EQ(RuleBrokenBy([] { CheckPool(); }), expected) << at;
        block[at] = before;
    }
    ExFreePool(plain);
    CheckPool();
}

TEST(PoolDamage, WritesAfterFreeAreFound) {
    if (kAddressSanitizer) GTEST_SKIP();
    volatile unsigned char* const block = Allocate(24, NonPagedPoolNx, kDamagedTag);
    auto* const plain = const_cast<unsigned char*>(block);
    ExFreePool(plain);
    EXPECT_EQ(block[5], 0xDD);
    block[5] = 1;
    const BrokenRule expected{Rule::kPoolCorrupted, plain, kDamagedTag};
    EXPECT_EQ(RuleBrokenBy([] { CheckPool(); }), expected);
    // Found as well when its memory is about to be used again, at the latest.
    const auto fillQuarantine = [] {
        for (int i = 0; i < 100'000; ++i) {
            ExFreePool(Allocate(24, NonPagedPoolNx, kDamagedTag));
        }
    };
    EXPECT_EQ(RuleBrokenBy(fillQuarantine), expected);
    CheckPool();
}

TEST(PoolDamage, AddressSanitizerSeesBlockBounds) {
    if (!kAddressSanitizer) GTEST_SKIP();
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    volatile unsigned char* const block = Allocate(24);
    EXPECT_DEATH(block[24] = 1, "AddressSanitizer");
    EXPECT_DEATH(block[-1] = 1, "AddressSanitizer");
    ExFreePool(const_cast<unsigned char*>(block));
    EXPECT_DEATH(block[0] = 1, "AddressSanitizer");
}

TEST(Pool, BlocksOutliveASwitchOfTheVerifier) {
    unsigned char* const verified = Allocate(8);
    EnableVerifier(false);
    unsigned char* const plain = Allocate(8);
    ExFreePoolWithTag(verified, kPoolTag);
    EnableVerifier(true);
    ExFreePoolWithTag(plain, kPoolTag);
    EXPECT_EQ(QueryPoolUsage(kPoolTag).blocks, 0U);
}

TEST(Pool, AccountsAreExactWhenOtherThreadsFree) {
    constexpr int kThreads = 4;
    constexpr int kBlocks = 2000;
    std::vector<std::vector<unsigned char*>> blocks(kThreads);
    const auto onEachThread = [&](const auto& work) {
        std::vector<std::thread> threads;
        for (int i = 0; i < kThreads; ++i) {
            threads.emplace_back([&work, i] { work(i); });
        }
        for (std::thread& thread : threads)
            thread.join();
    };
    onEachThread([&](int i) {
        for (int block = 0; block < kBlocks; ++block) {
            blocks[static_cast<std::size_t>(i)].push_back(Allocate(16));
        }
    });
    EXPECT_EQ(QueryPoolUsage(kPoolTag).blocks, std::size_t{kThreads} * kBlocks);
    EXPECT_EQ(QueryPoolUsage(kPoolTag).bytes, std::size_t{kThreads} * kBlocks * 16);
    onEachThread([&](int i) {
        for (unsigned char* block : blocks[static_cast<std::size_t>((i + 1) % kThreads)]) {
            ExFreePoolWithTag(block, kPoolTag);
        }
    });
    EXPECT_EQ(QueryPoolUsage(kPoolTag).blocks, 0U);
    EXPECT_EQ(QueryPoolUsage(kPoolTag).bytes, 0U);
}

}  // namespace
}  // namespace platform
