// Locking a process's memory for the kernel.
#include "platform/include/protected_access.h"
#include "platform/kernel/io.h"
#include "platform/machine.h"

#include <gtest/gtest.h>

#include <cstring>
#include <thread>
#include <vector>

namespace platform {

namespace {

constexpr std::size_t kPage = 4096;
constexpr std::size_t kBufferSize = 64 * 1024;

/// Whether the kernel can write to the address at all.
bool Faults(void* address) {
    const char byte = 1;
    return !PlatformCopyProtected(address, &byte, 1);
}

class LockedPagesTest : public ::testing::TestWithParam<bool> {
protected:
    LockedPagesTest() { EnableVerifier(GetParam()); }
    ~LockedPagesTest() override {
        FreeUserMemory(memory_);
        EnableVerifier(true);
    }

    Machine machine_;
    char* const memory_ = static_cast<char*>(AllocateUserMemory(kBufferSize));
    std::unique_ptr<LockedPages> pages_;
};

INSTANTIATE_TEST_SUITE_P(Verifier, LockedPagesTest, ::testing::Bool(),
                         [](const auto& instance) { return instance.param ? "On" : "Off"; });

TEST_P(LockedPagesTest, KernelAndProcessShareThePages) {
    ASSERT_EQ(LockedPages::Lock(memory_ + 5, kBufferSize - 5, pages_), STATUS_SUCCESS);
    auto* kernels = static_cast<char*>(pages_->SystemAddress());
    EXPECT_NE(kernels, memory_ + 5);
    EXPECT_EQ(pages_->Length(), kBufferSize - 5);
    kernels[0] = 'a';
    kernels[kBufferSize - 6] = 'z';
    EXPECT_EQ(memory_[5], 'a');
    EXPECT_EQ(memory_[kBufferSize - 1], 'z');
    memory_[6] = 'b';
    EXPECT_EQ(kernels[1], 'b');
}

TEST_P(LockedPagesTest, OnlyWritableRangesCanBeLocked) {
    char local[16];
    std::vector<char> heap(3 * kPage, 'x');
    std::memset(memory_, 'y', kBufferSize);
    const struct {
        const char* name;
        void* address;
        std::size_t length;
        NTSTATUS status;
    } cases[] = {
        {"whole", memory_, kBufferSize, STATUS_SUCCESS},
        {"last byte", memory_ + kBufferSize - 1, 1, STATUS_SUCCESS},
        {"one byte too many", memory_, kBufferSize + 1, STATUS_ACCESS_VIOLATION},
        {"behind the end", memory_ + kBufferSize, 1, STATUS_ACCESS_VIOLATION},
        {"stack", local, sizeof local, STATUS_SUCCESS},
        {"heap", heap.data(), heap.size(), STATUS_SUCCESS},
        {"null", nullptr, 1, STATUS_ACCESS_VIOLATION},
        {"constant", const_cast<char*>("constant"), 1, STATUS_ACCESS_VIOLATION},
        {"wraps around", local, ~std::size_t{0}, STATUS_ACCESS_VIOLATION},
        {"region wraps around", memory_, ~std::size_t{0}, STATUS_ACCESS_VIOLATION},
    };
    for (const auto& row : cases) {
        std::unique_ptr<LockedPages> pages;
        EXPECT_EQ(LockedPages::Lock(row.address, row.length, pages), row.status) << row.name;
        EXPECT_EQ(pages != nullptr, NT_SUCCESS(row.status)) << row.name;
    }
    // Finding out leaves the contents alone.
    EXPECT_EQ(heap, std::vector<char>(3 * kPage, 'x'));
    EXPECT_EQ(std::string_view(memory_, kBufferSize), std::string(kBufferSize, 'y'));
}

TEST_P(LockedPagesTest, LockedPagesOutliveTheProcessesMapping) {
    auto* freed = static_cast<char*>(AllocateUserMemory(kBufferSize));
    ASSERT_EQ(LockedPages::Lock(freed, kBufferSize, pages_), STATUS_SUCCESS);
    freed[kBufferSize - 1] = 'k';
    FreeUserMemory(freed);
    EXPECT_EQ(static_cast<char*>(pages_->SystemAddress())[kBufferSize - 1], 'k');
}

TEST_P(LockedPagesTest, BuffersAreLockedAndFreedFromManyThreads) {
    const auto churn = [] {
        for (int round = 0; round < 300; ++round) {
            auto* memory = static_cast<char*>(AllocateUserMemory(2 * kPage));
            std::unique_ptr<LockedPages> first;
            std::unique_ptr<LockedPages> second;
            ASSERT_EQ(LockedPages::Lock(memory, kPage + 1, first), STATUS_SUCCESS);
            ASSERT_EQ(LockedPages::Lock(memory + kPage, kPage, second), STATUS_SUCCESS);
            static_cast<char*>(second->SystemAddress())[0] = 'q';
            EXPECT_EQ(static_cast<char*>(first->SystemAddress())[kPage], 'q');
            FreeUserMemory(memory);
        }
    };
    std::thread other(churn);
    churn();
    other.join();
}

TEST(UnlockedPagesTest, LateWritesFaultAlsoWhenThePagesAreLockedAgain) {
    Machine machine;
    void* memory = AllocateUserMemory(kBufferSize);
    std::unique_ptr<LockedPages> pages;
    ASSERT_EQ(LockedPages::Lock(memory, kBufferSize, pages), STATUS_SUCCESS);
    void* stale = pages->SystemAddress();
    EXPECT_FALSE(Faults(stale));
    pages.reset();
    EXPECT_TRUE(Faults(stale));
    ASSERT_EQ(LockedPages::Lock(memory, kBufferSize, pages), STATUS_SUCCESS);
    EXPECT_TRUE(Faults(stale));
    EXPECT_FALSE(Faults(pages->SystemAddress()));
    FreeUserMemory(memory);
    EXPECT_TRUE(CatchBugcheck([&] { FreeUserMemory(memory); }));
}

}  // namespace

}  // namespace platform
