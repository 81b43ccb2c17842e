#include "platform/kernel/verifier.h"

#include "bugcheck_matchers.h"
#include "platform/include/lock_guards.h"

#include <gtest/gtest.h>

#include <functional>
#include <new>
#include <string>
#include <thread>

namespace platform {
namespace {

TEST(Bugcheck, InnermostCatchGetsItsCodeAndParameters) {
    std::optional<BugcheckRecord> inner;
    const auto outer = CatchBugcheck([&] {
        inner = CatchBugcheck([] { KeBugCheckEx(0x1234, 1, 2, 3, 4); });
        KeBugCheckEx(2, 0, 0, 0, 0);
    });
    ASSERT_TRUE(inner && outer);
    EXPECT_EQ(inner->code, 0x1234U);
    for (std::uintptr_t i = 0; i < 4; ++i)
        EXPECT_EQ(inner->parameters[i], i + 1);
    EXPECT_EQ(outer->code, 2U);
    EXPECT_FALSE(CatchBugcheck([] {}));
}

TEST(Bugcheck, ExceptionsPassThroughACatch) {
    EXPECT_THROW(CatchBugcheck([] { throw std::runtime_error("test"); }), std::runtime_error);
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    EXPECT_DEATH(KeBugCheckEx(0x77, 1, 0, 0, 0), "STOP 0x00000077 \\(0x1");
}

TEST(Bugcheck, ThreadIsPutBackWhereItWas) {
    KGUARDED_MUTEX mutex;
    KeInitializeGuardedMutex(&mutex);
    KSPIN_LOCK spinLock = 0;
    const KIRQL old = KfRaiseIrql(APC_LEVEL);
    {
        const CallbackCheck check("test");  // sees the level and locks as they were
        const auto record = CatchBugcheck([&] {
            KeEnterCriticalRegion();
            KeAcquireGuardedMutex(&mutex);
            const QueuedSpinLockGuard guard(spinLock);
            KeBugCheckEx(1, 0, 0, 0, 0);
        });
        EXPECT_TRUE(record);
        EXPECT_EQ(KeGetCurrentIrql(), APC_LEVEL);
    }
    KeLowerIrql(old);
}

/// Locks for one row; what a row leaves held goes with them.
struct Locks {
    KGUARDED_MUTEX mutexes[3];
    KSPIN_LOCK spinLocks[2] = {};
    KLOCK_QUEUE_HANDLE handles[2] = {};

    Locks() {
        for (KGUARDED_MUTEX& mutex : mutexes)
            KeInitializeGuardedMutex(&mutex);
    }
    void Acquire(int index) { KeAcquireGuardedMutex(&mutexes[index]); }
    void Release(int index) { KeReleaseGuardedMutex(&mutexes[index]); }
    void AcquireSpin(int index) {
        KeAcquireInStackQueuedSpinLock(&spinLocks[index], &handles[index]);
    }
    void ReleaseSpin(int index) { KeReleaseInStackQueuedSpinLock(&handles[index]); }
    void Take(int first, int second) {
        const GuardedMutexGuard outer(mutexes[first]);
        const GuardedMutexGuard inner(mutexes[second]);
    }
    void TakeSpin(int first, int second) {
        const QueuedSpinLockGuard outer(spinLocks[first]);
        const QueuedSpinLockGuard inner(spinLocks[second]);
    }
};

/// Which object the record names.
enum class Named { kNothing, kMutex0, kSpin0 };
using enum Named;

const struct {
    const char* what;
    Rule rule;
    Named named;
    void (*action)(Locks&);
} kRules[] = {
    // clang-format off
    {"mutex at dispatch level", Rule::kIrqlTooHigh, kNothing,
     [](Locks& locks) { KfRaiseIrql(DISPATCH_LEVEL); locks.Acquire(0); }},
    {"mutex under a spin lock", Rule::kIrqlTooHigh, kNothing,
     [](Locks& locks) { locks.AcquireSpin(0); locks.Acquire(0); }},
    {"passive routine under a mutex", Rule::kIrqlTooHigh, kNothing,
     [](Locks& locks) { locks.Acquire(0); RtlUpcaseUnicodeChar(L'a'); }},
    {"raised downwards", Rule::kIrqlDirection, kNothing,
     [](Locks&) { KfRaiseIrql(DISPATCH_LEVEL); KfRaiseIrql(APC_LEVEL); }},
    {"lowered upwards", Rule::kIrqlDirection, kNothing, [](Locks&) { KeLowerIrql(APC_LEVEL); }},
    {"level changed under a spin lock", Rule::kIrqlDirection, kSpin0,
     [](Locks& locks) { locks.AcquireSpin(0); KeLowerIrql(PASSIVE_LEVEL); locks.ReleaseSpin(0); }},
    {"mutex twice", Rule::kLockRecursion, kMutex0,
     [](Locks& locks) { locks.Acquire(0); locks.Acquire(0); }},
    {"spin lock twice", Rule::kLockRecursion, kSpin0, [](Locks& locks) { locks.TakeSpin(0, 0); }},
    {"mutexes in both orders", Rule::kLockOrder, kMutex0,
     [](Locks& locks) { locks.Take(0, 1); locks.Take(1, 0); }},
    {"mutexes in a circle of three", Rule::kLockOrder, kMutex0,
     [](Locks& locks) { locks.Take(0, 1); locks.Take(1, 2); locks.Take(2, 0); }},
    {"mutexes in both orders with another tried for in between", Rule::kLockOrder, kMutex0,
     [](Locks& locks) {
         locks.Acquire(0); KeTryToAcquireGuardedMutex(&locks.mutexes[2]); locks.Acquire(1);
         locks.Release(1); locks.Release(2); locks.Release(0);
         locks.Take(1, 0); }},
    {"spin locks in both orders, on two threads", Rule::kLockOrder, kSpin0,
     [](Locks& locks) { std::thread([&] { locks.TakeSpin(0, 1); }).join(); locks.TakeSpin(1, 0); }},
    {"mutex released by another thread", Rule::kLockNotHeld, kMutex0,
     [](Locks& locks) { std::thread([&] { locks.Acquire(0); }).join(); locks.Release(0); }},
    {"spin lock released twice", Rule::kLockNotHeld, kSpin0,
     [](Locks& locks) { locks.AcquireSpin(0); locks.ReleaseSpin(0); locks.ReleaseSpin(0); }},
    {"critical region left twice", Rule::kLockNotHeld, kNothing, [](Locks&) { KeLeaveCriticalRegion(); }},
    {"callback leaks its level", Rule::kIrqlLeaked, kNothing,
     [](Locks&) { const CallbackCheck check("Callback"); KfRaiseIrql(DISPATCH_LEVEL); }},
    {"callback leaks a lock", Rule::kLockLeaked, kMutex0,
     [](Locks& locks) { const CallbackCheck check("Callback"); locks.Acquire(0); }},
    {"callback leaks a critical region", Rule::kLockLeaked, kNothing,
     [](Locks&) { const CallbackCheck check("Callback"); KeEnterCriticalRegion(); }},
    // clang-format on
};

TEST(Verifier, StopsTheMachineAtEachRule) {
    for (const auto& row : kRules) {
        Locks locks;
        const void* const named = row.named == kMutex0  ? &locks.mutexes[0]
                                  : row.named == kSpin0 ? static_cast<void*>(&locks.spinLocks[0])
                                                        : nullptr;
        EXPECT_EQ(RuleBrokenBy([&] { row.action(locks); }), (BrokenRule{row.rule, named}))
            << row.what;
        EXPECT_EQ(KeGetCurrentIrql(), PASSIVE_LEVEL) << row.what;
    }
}

TEST(VerifierAllows, OrdersThatCannotDeadlock) {
    EXPECT_EQ(RuleBrokenBy([] {
                  Locks locks;
                  locks.Take(0, 1);
                  locks.Take(0, 2);
                  locks.Take(1, 2);
                  locks.TakeSpin(0, 1);
                  // A lock made anew at the same place is another lock.
                  KeInitializeGuardedMutex(&locks.mutexes[2]);
                  locks.Take(2, 1);
                  // Released in the order of acquisition.
                  locks.AcquireSpin(0);
                  locks.AcquireSpin(1);
                  locks.ReleaseSpin(1);
                  locks.ReleaseSpin(0);
              }),
              std::nullopt);
}

TEST(VerifierAllows, LockOrderOfFreedMemoryIsForgotten) {
    constexpr ULONG kTag = MakeTag("Tvf0");
    // Blocks leave the quarantine in time, and their addresses come back as other locks.
    EXPECT_EQ(RuleBrokenBy([] {
                  for (int round = 0; round < 4000; ++round) {
                      auto* const lock =
                          static_cast<PKSPIN_LOCK>(ExAllocatePoolWithTag(NonPagedPoolNx, 16, kTag));
                      lock[0] = lock[1] = 0;
                      KLOCK_QUEUE_HANDLE outer;
                      KLOCK_QUEUE_HANDLE inner;
                      KeAcquireInStackQueuedSpinLock(&lock[round % 2], &outer);
                      KeAcquireInStackQueuedSpinLock(&lock[1 - round % 2], &inner);
                      KeReleaseInStackQueuedSpinLock(&inner);
                      KeReleaseInStackQueuedSpinLock(&outer);
                      ExFreePoolWithTag(lock, kTag);
                  }
              }),
              std::nullopt);
}

TEST(VerifierAllows, EverythingWhileItIsOff) {
    const VerifierOff off;
    EXPECT_FALSE(CatchBugcheck([] {
        Locks locks;
        locks.Take(0, 1);
        locks.Take(1, 0);
        KeLowerIrql(APC_LEVEL);
        KeLowerIrql(PASSIVE_LEVEL);
    }));
}

}  // namespace
}  // namespace platform
