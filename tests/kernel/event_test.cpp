// Events by address and by handle, rundown protection, and the clock.
#include "bugcheck_matchers.h"
#include "platform/kernel/handle_table.h"
#include "platform/kernel/process.h"
#include "platform/kernel/syscalls.h"
#include "platform/kernel/time.h"

#include <gtest/gtest.h>

#include <atomic>
#include <thread>
#include <vector>

namespace platform {
namespace {

NTSTATUS Wait(KEVENT& event, LONGLONG timeout) {
    LARGE_INTEGER value;
    value.QuadPart = timeout;
    return KeWaitForSingleObject(&event, 0, KernelMode, FALSE, &value);
}

NTSTATUS WaitForEver(KEVENT& event) {
    return KeWaitForSingleObject(&event, 0, KernelMode, FALSE, nullptr);
}

TEST(Event, NotificationStaysAndSynchronizationIsConsumed) {
    for (const EVENT_TYPE type : {NotificationEvent, SynchronizationEvent}) {
        KEVENT event;
        KeInitializeEvent(&event, type, FALSE);
        EXPECT_EQ(Wait(event, 0), STATUS_TIMEOUT);
        EXPECT_EQ(KeSetEvent(&event, 0, FALSE), 0);
        EXPECT_EQ(KeSetEvent(&event, 0, FALSE), 1);
        EXPECT_EQ(WaitForEver(event), STATUS_SUCCESS);
        EXPECT_EQ(Wait(event, 0), type == NotificationEvent ? STATUS_SUCCESS : STATUS_TIMEOUT);
        KeSetEvent(&event, 0, FALSE);
        KeClearEvent(&event);
        EXPECT_EQ(Wait(event, 0), STATUS_TIMEOUT);
    }
}

TEST(Event, TimedWaitsEnd) {
    KEVENT event;
    KeInitializeEvent(&event, SynchronizationEvent, FALSE);
    EXPECT_EQ(Wait(event, -20'000), STATUS_TIMEOUT);
    EXPECT_EQ(Wait(event, TimeNow() - 1), STATUS_TIMEOUT);
    EXPECT_EQ(Wait(event, TimeNow() + 20'000), STATUS_TIMEOUT);
    // Who gave up waiting must not swallow the next signal.
    EXPECT_EQ(KeSetEvent(&event, 0, FALSE), 0);
    EXPECT_EQ(WaitForEver(event), STATUS_SUCCESS);
}

TEST(Event, EachSignalReleasesOneOfManyWaiters) {
    constexpr int kThreads = 4;
    constexpr int kRounds = 2000;
    KEVENT ready;
    KEVENT taken;
    KeInitializeEvent(&ready, SynchronizationEvent, FALSE);
    KeInitializeEvent(&taken, SynchronizationEvent, FALSE);
    std::atomic<int> consumed{0};
    std::vector<std::thread> threads;
    for (int i = 0; i < kThreads; ++i) {
        threads.emplace_back([&] {
            for (int round = 0; round < kRounds / kThreads; ++round) {
                WaitForEver(ready);
                ++consumed;
                KeSetEvent(&taken, 0, FALSE);
            }
        });
    }
    for (int round = 0; round < kRounds; ++round) {
        KeSetEvent(&ready, 0, FALSE);
        WaitForEver(taken);
        EXPECT_EQ(consumed, round + 1);
    }
    for (std::thread& thread : threads)
        thread.join();
}

TEST(Event, WaiterMayDropItAtOnce) {
    for (int round = 0; round < 2000; ++round) {
        auto* const event = new KEVENT;
        KeInitializeEvent(event, NotificationEvent, FALSE);
        std::thread setter([event] { KeSetEvent(event, 0, FALSE); });
        WaitForEver(*event);
        delete event;
        setter.join();
    }
}

TEST(Event, WrongUseStopsTheMachine) {
    KEVENT event;
    KeInitializeEvent(&event, NotificationEvent, TRUE);
    EXPECT_EQ(RuleBrokenBy([&] {
                  KfRaiseIrql(DISPATCH_LEVEL);
                  WaitForEver(event);
              }),
              BrokenRule{Rule::kIrqlTooHigh});
    KEVENT zeros{};
    EXPECT_EQ(RuleBrokenBy([&] { KeSetEvent(&zeros, 0, FALSE); }),
              (BrokenRule{Rule::kObjectBadReference, &zeros}));
}

class EventHandles : public testing::Test {
protected:
    ~EventHandles() override {
        for (HANDLE handle : handles_) {
            EXPECT_EQ(NtClose(handle), STATUS_SUCCESS);
        }
    }
    HANDLE Make(EVENT_TYPE type, BOOLEAN state, ACCESS_MASK access = GENERIC_ALL) {
        HANDLE handle = nullptr;
        EXPECT_EQ(NtCreateEvent(&handle, access, nullptr, type, state), STATUS_SUCCESS);
        handles_.push_back(handle);
        return handle;
    }
    std::vector<HANDLE> handles_;
    LARGE_INTEGER none_{};
};

TEST_F(EventHandles, WaitingForSeveralTakesTheFirstThatIsSet) {
    HANDLE handles[] = {Make(NotificationEvent, FALSE), Make(SynchronizationEvent, TRUE),
                        Make(SynchronizationEvent, TRUE)};
    EXPECT_EQ(NtWaitForMultipleObjects(3, handles, 1, FALSE, nullptr), STATUS_WAIT_0 + 1);
    EXPECT_EQ(NtWaitForMultipleObjects(3, handles, 1, FALSE, &none_), STATUS_WAIT_0 + 2);
    EXPECT_EQ(NtWaitForMultipleObjects(3, handles, 1, FALSE, &none_), STATUS_TIMEOUT);
    LONG before = 7;
    EXPECT_EQ(NtSetEvent(handles[0], &before), STATUS_SUCCESS);
    EXPECT_EQ(before, 0);
    EXPECT_EQ(NtWaitForSingleObject(handles[0], FALSE, &none_), STATUS_WAIT_0);
}

TEST(Rundown, WaitsForEveryHolderAndThenRefuses) {
    EX_RUNDOWN_REF reference;
    ExInitializeRundownProtection(&reference);
    EXPECT_TRUE(ExAcquireRundownProtection(&reference));
    EXPECT_TRUE(ExAcquireRundownProtection(&reference));
    std::atomic<bool> released{false};
    std::thread waiter([&] {
        ExWaitForRundownProtectionRelease(&reference);
        EXPECT_TRUE(released);
    });
    while (ExAcquireRundownProtection(&reference)) {
        ExReleaseRundownProtection(&reference);
        std::this_thread::yield();
    }
    ExReleaseRundownProtection(&reference);
    released = true;
    ExReleaseRundownProtection(&reference);
    waiter.join();
    EXPECT_FALSE(ExAcquireRundownProtection(&reference));
    ExWaitForRundownProtectionRelease(&reference);
    ExInitializeRundownProtection(&reference);
    EXPECT_EQ(RuleBrokenBy([&] { ExReleaseRundownProtection(&reference); }),
              (BrokenRule{Rule::kLockNotHeld, &reference}));
}

TEST(SystemTime, StandsStillWhereItIsPutAndTicksWhileAClockRuns) {
    const auto shared = [] {
        LARGE_INTEGER time;
        KeQuerySystemTime(&time);
        return time.QuadPart;
    };
    constexpr LONGLONG kThen = 133'000'000'000'000'000;
    StartClock();
    SetSystemTime(kThen);
    EXPECT_EQ(shared(), kThen);
    EXPECT_EQ(TimeNow(), kThen);
    SetSystemTime(0);
    const LONGLONG start = shared();
    EXPECT_GT(start, kThen);
    while (shared() == start)
        std::this_thread::yield();
    StopClock();
}

}  // namespace
}  // namespace platform
