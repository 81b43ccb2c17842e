#include "platform/kernel/event_object.h"

#include "platform/kernel/handle_table.h"
#include "platform/kernel/process.h"
#include "platform/kernel/syscalls.h"

#include <gtest/gtest.h>

#include <thread>

namespace platform {
namespace {

class Events : public testing::Test {
protected:
    ~Events() override {
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
    static NTSTATUS Poll(HANDLE handle) {
        LARGE_INTEGER none{};
        return NtWaitForSingleObject(handle, FALSE, &none);
    }
    std::vector<HANDLE> handles_;
};

TEST_F(Events, NotificationStaysSetAndSynchronizationDoesNot) {
    const HANDLE notification = Make(NotificationEvent, FALSE);
    const HANDLE synchronization = Make(SynchronizationEvent, TRUE);
    EXPECT_EQ(Poll(notification), STATUS_TIMEOUT);
    LONG before = 7;
    EXPECT_EQ(NtSetEvent(notification, &before), STATUS_SUCCESS);
    EXPECT_EQ(before, 0);
    EXPECT_EQ(NtSetEvent(notification, &before), STATUS_SUCCESS);
    EXPECT_EQ(before, 1);
    EXPECT_EQ(Poll(notification), STATUS_WAIT_0);
    EXPECT_EQ(Poll(notification), STATUS_WAIT_0);
    EXPECT_EQ(NtClearEvent(notification), STATUS_SUCCESS);
    EXPECT_EQ(Poll(notification), STATUS_TIMEOUT);
    EXPECT_EQ(Poll(synchronization), STATUS_WAIT_0);
    EXPECT_EQ(Poll(synchronization), STATUS_TIMEOUT);
}

TEST_F(Events, WaitingForSeveralTakesTheFirstThatIsSet) {
    HANDLE handles[] = {Make(NotificationEvent, FALSE), Make(SynchronizationEvent, TRUE),
                        Make(SynchronizationEvent, TRUE)};
    LARGE_INTEGER none{};
    EXPECT_EQ(NtWaitForMultipleObjects(3, handles, 1, FALSE, nullptr), STATUS_WAIT_0 + 1);
    EXPECT_EQ(NtWaitForMultipleObjects(3, handles, 1, FALSE, &none), STATUS_WAIT_0 + 2);
    EXPECT_EQ(NtWaitForMultipleObjects(3, handles, 1, FALSE, &none), STATUS_TIMEOUT);
}

TEST_F(Events, WakesOneWaiterEach) {
    constexpr int kWaiters = 3;
    const HANDLE go = Make(SynchronizationEvent, FALSE);
    const HANDLE gone = Make(SynchronizationEvent, FALSE);
    std::atomic<int> awake{0};
    std::vector<std::jthread> threads;
    for (int index = 0; index < kWaiters; ++index) {
        threads.emplace_back([&] {
            EXPECT_EQ(NtWaitForSingleObject(go, FALSE, nullptr), STATUS_WAIT_0);
            ++awake;
            EXPECT_EQ(NtSetEvent(gone, nullptr), STATUS_SUCCESS);
        });
    }
    for (int count = 1; count <= kWaiters; ++count) {
        EXPECT_EQ(NtSetEvent(go, nullptr), STATUS_SUCCESS);
        EXPECT_EQ(NtWaitForSingleObject(gone, FALSE, nullptr), STATUS_WAIT_0);
        EXPECT_EQ(awake.load(), count);
    }
}

TEST_F(Events, RefusesBadArguments) {
    HANDLE handle = nullptr;
    EXPECT_EQ(NtCreateEvent(&handle, GENERIC_ALL, nullptr, static_cast<EVENT_TYPE>(2), FALSE),
              STATUS_INVALID_PARAMETER);
    EXPECT_EQ(NtCreateEvent(nullptr, GENERIC_ALL, nullptr, NotificationEvent, FALSE),
              STATUS_ACCESS_VIOLATION);
    EXPECT_TRUE(CurrentProcess().Handles().OpenHandles().empty()) << "the handle was not closed";
    const HANDLE waitOnly = Make(NotificationEvent, TRUE, SYNCHRONIZE);
    EXPECT_EQ(NtSetEvent(waitOnly, nullptr), STATUS_ACCESS_DENIED);
    EXPECT_EQ(Poll(waitOnly), STATUS_WAIT_0);
    EXPECT_EQ(NtWaitForMultipleObjects(0, &handle, 1, FALSE, nullptr), STATUS_INVALID_PARAMETER);
    EXPECT_EQ(NtWaitForMultipleObjects(65, &handle, 1, FALSE, nullptr), STATUS_INVALID_PARAMETER);
    EXPECT_EQ(NtWaitForMultipleObjects(1, nullptr, 1, FALSE, nullptr), STATUS_ACCESS_VIOLATION);
    EXPECT_EQ(Poll(reinterpret_cast<HANDLE>(std::intptr_t{-1})), STATUS_OBJECT_TYPE_MISMATCH);
}

}  // namespace
}  // namespace platform
