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

TEST(Bugcheck, KernelCodeChoosesCodeAndParameters) {
    const auto record = CatchBugcheck([] { KeBugCheckEx(0x1234, 1, 2, 3, 4); });
    ASSERT_TRUE(record);
    EXPECT_EQ(record->code, 0x1234U);
    for (std::uintptr_t i = 0; i < 4; ++i)
        EXPECT_EQ(record->parameters[i], i + 1);
    EXPECT_FALSE(CatchBugcheck([] {}));
}

TEST(Bugcheck, InnermostCatchGetsIt) {
    std::optional<BugcheckRecord> inner;
    const auto outer = CatchBugcheck([&] {
        inner = CatchBugcheck([] { KeBugCheckEx(1, 0, 0, 0, 0); });
        KeBugCheckEx(2, 0, 0, 0, 0);
    });
    ASSERT_TRUE(inner && outer);
    EXPECT_EQ(inner->code, 1U);
    EXPECT_EQ(outer->code, 2U);
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
    void Take(int first, int second) {
        const GuardedMutexGuard outer(mutexes[first]);
        const GuardedMutexGuard inner(mutexes[second]);
    }
    void TakeSpin(int first, int second) {
        const QueuedSpinLockGuard outer(spinLocks[first]);
        const QueuedSpinLockGuard inner(spinLocks[second]);
    }
};

template <void(NTAPI* Callback)()>
void CallChecked() {
    const CallbackCheck check("Callback");
    Callback();
}

void NTAPI RaisingCallback() {
    KfRaiseIrql(DISPATCH_LEVEL);
}
void NTAPI RegionLeakingCallback() {
    KeEnterCriticalRegion();
}

struct RuleRow {
    const char* what;
    void (*action)(Locks&);
    Rule rule;
    /// Which object the record names; null for none.
    const void* (*object)(Locks&);
};

const void* NoObject(Locks&) {
    return nullptr;
}
const void* Mutex0(Locks& locks) {
    return &locks.mutexes[0];
}
const void* Spin0(Locks& locks) {
    return &locks.spinLocks[0];
}

const RuleRow kRules[] = {
    {"mutex at dispatch level",
     [](Locks& locks) {
         KfRaiseIrql(DISPATCH_LEVEL);
         KeAcquireGuardedMutex(&locks.mutexes[0]);
     },
     Rule::kIrqlTooHigh, NoObject},
    {"mutex under a spin lock",
     [](Locks& locks) {
         const QueuedSpinLockGuard guard(locks.spinLocks[0]);
         KeAcquireGuardedMutex(&locks.mutexes[0]);
     },
     Rule::kIrqlTooHigh, NoObject},
    {"passive routine under a mutex",
     [](Locks& locks) {
         const GuardedMutexGuard guard(locks.mutexes[0]);
         RtlUpcaseUnicodeChar(L'a');
     },
     Rule::kIrqlTooHigh, NoObject},
    {"raised downwards",
     [](Locks&) {
         KfRaiseIrql(DISPATCH_LEVEL);
         KfRaiseIrql(APC_LEVEL);
     },
     Rule::kIrqlDirection, NoObject},
    {"lowered upwards", [](Locks&) { KeLowerIrql(APC_LEVEL); }, Rule::kIrqlDirection, NoObject},
    {"level changed under a spin lock",
     [](Locks& locks) {
         KeAcquireInStackQueuedSpinLock(&locks.spinLocks[0], &locks.handles[0]);
         KeLowerIrql(PASSIVE_LEVEL);
         KeReleaseInStackQueuedSpinLock(&locks.handles[0]);
     },
     Rule::kIrqlDirection, Spin0},
    {"mutex twice",
     [](Locks& locks) {
         KeAcquireGuardedMutex(&locks.mutexes[0]);
         KeAcquireGuardedMutex(&locks.mutexes[0]);
     },
     Rule::kLockRecursion, Mutex0},
    {"spin lock twice", [](Locks& locks) { locks.TakeSpin(0, 0); }, Rule::kLockRecursion, Spin0},
    {"mutexes in both orders",
     [](Locks& locks) {
         locks.Take(0, 1);
         locks.Take(1, 0);
     },
     Rule::kLockOrder, Mutex0},
    {"mutexes in a circle of three",
     [](Locks& locks) {
         locks.Take(0, 1);
         locks.Take(1, 2);
         locks.Take(2, 0);
     },
     Rule::kLockOrder, Mutex0},
    {"mutexes in both orders with another tried for in between",
     [](Locks& locks) {
         KeAcquireGuardedMutex(&locks.mutexes[0]);
         KeTryToAcquireGuardedMutex(&locks.mutexes[2]);
         KeAcquireGuardedMutex(&locks.mutexes[1]);
         KeReleaseGuardedMutex(&locks.mutexes[1]);
         KeReleaseGuardedMutex(&locks.mutexes[2]);
         KeReleaseGuardedMutex(&locks.mutexes[0]);
         locks.Take(1, 0);
     },
     Rule::kLockOrder, Mutex0},
    {"spin locks in both orders, on two threads",
     [](Locks& locks) {
         std::thread([&locks] { locks.TakeSpin(0, 1); }).join();
         locks.TakeSpin(1, 0);
     },
     Rule::kLockOrder, Spin0},
    {"mutex released by another thread",
     [](Locks& locks) {
         std::thread([&locks] { KeAcquireGuardedMutex(&locks.mutexes[0]); }).join();
         KeReleaseGuardedMutex(&locks.mutexes[0]);
     },
     Rule::kLockNotHeld, Mutex0},
    {"spin lock released twice",
     [](Locks& locks) {
         KeAcquireInStackQueuedSpinLock(&locks.spinLocks[0], &locks.handles[0]);
         KeReleaseInStackQueuedSpinLock(&locks.handles[0]);
         KeReleaseInStackQueuedSpinLock(&locks.handles[0]);
     },
     Rule::kLockNotHeld, Spin0},
    {"critical region left twice", [](Locks&) { KeLeaveCriticalRegion(); }, Rule::kLockNotHeld,
     NoObject},
    {"callback leaks its level", [](Locks&) { CallChecked<RaisingCallback>(); }, Rule::kIrqlLeaked,
     NoObject},
    {"callback leaks a lock",
     [](Locks& locks) {
         const CallbackCheck check("Callback");
         KeAcquireGuardedMutex(&locks.mutexes[0]);
     },
     Rule::kLockLeaked, Mutex0},
    {"callback leaks a critical region", [](Locks&) { CallChecked<RegionLeakingCallback>(); },
     Rule::kLockLeaked, NoObject},
};

class Verifier : public testing::TestWithParam<RuleRow> {};

TEST_P(Verifier, StopsTheMachineAt) {
    const RuleRow& row = GetParam();
    Locks locks;
    EXPECT_EQ(RuleBrokenBy([&] { row.action(locks); }), (BrokenRule{row.rule, row.object(locks)}))
        << row.what;
    EXPECT_EQ(KeGetCurrentIrql(), PASSIVE_LEVEL);
}

INSTANTIATE_TEST_SUITE_P(Rules, Verifier, testing::ValuesIn(kRules),
                         [](const testing::TestParamInfo<RuleRow>& row) {
                             std::string name = row.param.what;
                             for (char& character : name) {
                                 if (character == ' ' || character == ',') character = '_';
                             }
                             return name;
                         });

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
                  KeAcquireInStackQueuedSpinLock(&locks.spinLocks[0], &locks.handles[0]);
                  KeAcquireInStackQueuedSpinLock(&locks.spinLocks[1], &locks.handles[1]);
                  KeReleaseInStackQueuedSpinLock(&locks.handles[1]);
                  KeReleaseInStackQueuedSpinLock(&locks.handles[0]);
              }),
              std::nullopt);
}

TEST(VerifierAllows, LockOrderOfFreedMemoryIsForgotten) {
    constexpr ULONG kTag = MakeTag("Tvf0");
    // Blocks leave the quarantine in time, and their addresses come back as other locks.
    EXPECT_EQ(RuleBrokenBy([] {
                  KGUARDED_MUTEX fixed;
                  KeInitializeGuardedMutex(&fixed);
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

TEST(Processors, NumbersAreBelowTheCount) {
    ULONG_PTR mask = 0;
    const ULONG count = KeQueryActiveProcessorCount(&mask);
    EXPECT_GE(count, 1U);
    EXPECT_EQ(static_cast<ULONG>(__builtin_popcountll(mask)), count);
    EXPECT_LT(KeGetCurrentProcessorNumberEx(nullptr), count);
}

}  // namespace
}  // namespace platform
