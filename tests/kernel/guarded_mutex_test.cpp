#include "bugcheck_matchers.h"

#include <gtest/gtest.h>

#include <thread>
#include <vector>

namespace platform {
namespace {

class GuardedMutex : public testing::Test {
protected:
    GuardedMutex() { KeInitializeGuardedMutex(&mutex_); }

    KGUARDED_MUTEX mutex_;
};

TEST_F(GuardedMutex, RaisesToApcLevelAndRestores) {
    for (const KIRQL level : {PASSIVE_LEVEL, APC_LEVEL}) {
        const KIRQL old = KfRaiseIrql(level);
        KeAcquireGuardedMutex(&mutex_);
        EXPECT_EQ(KeGetCurrentIrql(), APC_LEVEL);
        KeReleaseGuardedMutex(&mutex_);
        EXPECT_EQ(KeGetCurrentIrql(), level);
        KeLowerIrql(old);
    }
}

TEST_F(GuardedMutex, TryingNeverWaits) {
    EXPECT_TRUE(KeTryToAcquireGuardedMutex(&mutex_));
    EXPECT_EQ(KeGetCurrentIrql(), APC_LEVEL);
    std::thread([this] {
        EXPECT_FALSE(KeTryToAcquireGuardedMutex(&mutex_));
        EXPECT_EQ(KeGetCurrentIrql(), PASSIVE_LEVEL);
    }).join();
    KeReleaseGuardedMutex(&mutex_);
    EXPECT_EQ(KeGetCurrentIrql(), PASSIVE_LEVEL);
}

TEST_F(GuardedMutex, ExcludesWithAndWithoutTheVerifier) {
    constexpr int kThreads = 5;
    constexpr int kRounds = 20'000;
    for (const bool verify : {true, false}) {
        EnableVerifier(verify);
        long counter = 0;
        std::vector<std::thread> threads;
        for (int i = 0; i < kThreads; ++i) {
            threads.emplace_back([&, i] {
                for (int round = 0; round < kRounds; ++round) {
                    if (i != 0 || !KeTryToAcquireGuardedMutex(&mutex_)) {
                        KeAcquireGuardedMutex(&mutex_);
                    }
                    ++counter;
                    KeReleaseGuardedMutex(&mutex_);
                }
            });
        }
        for (std::thread& thread : threads)
            thread.join();
        EXPECT_EQ(counter, long{kThreads} * kRounds);
    }
    EnableVerifier(true);
}

TEST_F(GuardedMutex, ParkedWaitersAreWoken) {
    constexpr unsigned kWaiters = 6;
    KeAcquireGuardedMutex(&mutex_);
    std::vector<std::thread> threads;
    unsigned served = 0;
    for (unsigned i = 0; i < kWaiters; ++i) {
        threads.emplace_back([&] {
            KeAcquireGuardedMutex(&mutex_);
            ++served;
            KeReleaseGuardedMutex(&mutex_);
        });
    }
    // Everybody has queued up, and somebody has marked the mutex as one to wake for.
    while (__atomic_load_n(&mutex_.Contention, __ATOMIC_RELAXED) != kWaiters ||
           __atomic_load_n(&mutex_.Count, __ATOMIC_RELAXED) != -1) {
        std::this_thread::yield();
    }
    KeReleaseGuardedMutex(&mutex_);
    for (std::thread& thread : threads)
        thread.join();
    EXPECT_EQ(served, kWaiters);
}

}  // namespace
}  // namespace platform
