#include "platform/kernel/verifier.h"

#include <gtest/gtest.h>

#include <thread>
#include <vector>

namespace platform {
namespace {

/// Runs `work(i)` on `count` threads and waits for them.
template <typename Work>
void OnThreads(int count, const Work& work) {
    std::vector<std::thread> threads;
    for (int i = 0; i < count; ++i) {
        threads.emplace_back([&work, i] { work(i); });
    }
    for (std::thread& thread : threads)
        thread.join();
}

TEST(SpinLock, RaisesToDispatchLevelAndRestores) {
    KSPIN_LOCK lock;
    KeInitializeSpinLock(&lock);
    for (const KIRQL level : {PASSIVE_LEVEL, APC_LEVEL, DISPATCH_LEVEL}) {
        const KIRQL old = KfRaiseIrql(level);
        KLOCK_QUEUE_HANDLE handle;
        KeAcquireInStackQueuedSpinLock(&lock, &handle);
        EXPECT_EQ(KeGetCurrentIrql(), DISPATCH_LEVEL);
        KeReleaseInStackQueuedSpinLock(&handle);
        EXPECT_EQ(KeGetCurrentIrql(), level);
        KeLowerIrql(old);
    }
}

TEST(SpinLock, ExcludesWithAndWithoutTheVerifier) {
    constexpr int kThreads = 5;
    constexpr int kRounds = 20'000;
    for (const bool verify : {true, false}) {
        EnableVerifier(verify);
        KSPIN_LOCK lock;
        KeInitializeSpinLock(&lock);
        long counter = 0;
        OnThreads(kThreads, [&](int) {
            for (int round = 0; round < kRounds; ++round) {
                KLOCK_QUEUE_HANDLE handle;
                KeAcquireInStackQueuedSpinLock(&lock, &handle);
                ++counter;
                KeReleaseInStackQueuedSpinLock(&handle);
            }
        });
        EXPECT_EQ(counter, long{kThreads} * kRounds);
    }
    EnableVerifier(true);
}

TEST(SpinLock, LockMayGoWithItsLastHolder) {
    struct Shared {
        KSPIN_LOCK lock = 0;
        int users = 2;
    };
    for (int round = 0; round < 2000; ++round) {
        auto* const shared = new Shared;
        const auto use = [shared](int) {
            KLOCK_QUEUE_HANDLE handle;
            KeAcquireInStackQueuedSpinLock(&shared->lock, &handle);
            const bool last = --shared->users == 0;
            KeReleaseInStackQueuedSpinLock(&handle);
            if (last) delete shared;
        };
        std::thread other(use, 0);
        use(1);
        other.join();
    }
}

}  // namespace
}  // namespace platform
