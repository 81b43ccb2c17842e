#include "platform/include/protected_access.h"

#include "bugcheck_matchers.h"

#include <gtest/gtest.h>

#include <sys/mman.h>
#include <unistd.h>

#include <csignal>
#include <cstring>
#include <vector>

namespace platform {
namespace {

/// Three pages; the outer two cannot be touched.
class ProtectedAccess : public testing::Test {
protected:
    ProtectedAccess()
        : pageSize_(static_cast<std::size_t>(sysconf(_SC_PAGESIZE))),
          memory_(static_cast<unsigned char*>(
              mmap(nullptr, 3 * pageSize_, PROT_NONE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0))) {}
    ~ProtectedAccess() override { munmap(memory_, 3 * pageSize_); }

    void SetUp() override {
        ASSERT_NE(static_cast<void*>(memory_), MAP_FAILED);
        ASSERT_EQ(mprotect(First(), pageSize_, PROT_READ | PROT_WRITE), 0);
        std::memset(First(), 0x5A, pageSize_);
    }
    unsigned char* First() { return memory_ + pageSize_; }
    unsigned char* End() { return First() + pageSize_; }

    std::size_t pageSize_;
    unsigned char* memory_;
};

TEST_F(ProtectedAccess, FaultsAtEveryOffsetFromABoundary) {
    std::vector<unsigned char> buffer(64);
    for (std::size_t size = 1; size <= 24; ++size) {
        for (std::size_t inside = 0; inside <= size; ++inside) {
            const bool whole = inside == size;
            unsigned char* const atEnd = End() - inside;
            unsigned char* const atStart = First() - (size - inside);
            for (unsigned char* memory : {atEnd, atStart}) {
                std::memset(buffer.data(), 0, buffer.size());
                EXPECT_EQ(PlatformCopyProtected(buffer.data(), memory, size), whole)
                    << size << " " << inside;
                if (whole) {
                    std::vector<unsigned char> expected(64, 0);
                    std::memset(expected.data(), 0x5A, size);
                    EXPECT_EQ(buffer, expected);
                }
                std::memset(buffer.data(), 0x5A, size);
                EXPECT_EQ(PlatformCopyProtected(memory, buffer.data(), size), whole)
                    << size << " " << inside;
            }
        }
    }
}

TEST_F(ProtectedAccess, ReadOnlyMemoryCannotBeWritten) {
    ASSERT_EQ(mprotect(First(), pageSize_, PROT_READ), 0);
    unsigned char byte = 1;
    EXPECT_FALSE(PlatformCopyProtected(First(), &byte, 1));
    EXPECT_TRUE(PlatformCopyProtected(&byte, First(), 1));
    EXPECT_EQ(byte, 0x5A);
}

TEST_F(ProtectedAccess, BadAddressesOfAllKinds) {
    long value = 0;
    const std::uintptr_t addresses[] = {0, 8, 0x0000'8000'0000'0000, 0xFFFF'F780'0000'0014,
                                        UINTPTR_MAX};
    for (const std::uintptr_t address : addresses) {
        EXPECT_FALSE(
            PlatformCopyProtected(&value, reinterpret_cast<void*>(address), sizeof(value)));
        EXPECT_FALSE(PlatformCopyProtected(reinterpret_cast<void*>(address), &value, 3));
    }
    EXPECT_TRUE(PlatformCopyProtected(&value, nullptr, 0));
}

TEST_F(ProtectedAccess, TruncatedFileMappingFaults) {
    char name[] = "/tmp/protected_access_test_XXXXXX";
    const int file = mkstemp(name);
    ASSERT_GE(file, 0);
    unlink(name);
    ASSERT_EQ(ftruncate(file, static_cast<off_t>(pageSize_)), 0);
    void* const mapped = mmap(nullptr, pageSize_, PROT_READ, MAP_SHARED, file, 0);
    ASSERT_NE(mapped, MAP_FAILED);
    int value = 1;
    EXPECT_TRUE(PlatformCopyProtected(&value, mapped, sizeof(value)));
    EXPECT_EQ(value, 0);
    ASSERT_EQ(ftruncate(file, 0), 0);
    EXPECT_FALSE(PlatformCopyProtected(&value, mapped, sizeof(value)));
    munmap(mapped, pageSize_);
    close(file);
}

TEST_F(ProtectedAccess, OtherFaultsAreStillFatal) {
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    EXPECT_DEATH(*static_cast<volatile unsigned char*>(End()) = 1, "");
}

TEST_F(ProtectedAccess, UserMemoryIsNotTouchedAtDispatchLevel) {
    EXPECT_EQ(RuleBrokenBy([this] {
                  int value = 0;
                  KfRaiseIrql(DISPATCH_LEVEL);
                  PlatformCopyProtected(&value, First(), sizeof(value));
              }),
              BrokenRule{Rule::kIrqlTooHigh});
}

}  // namespace
}  // namespace platform
