// The dispatcher: the gates in their order and what they count. Which row has which gates shows
// where each operation is performed.
#include "intercept/registry_callback.h"
#include "driver/driver_fixture.h"
#include "intercept/legacy_classes.h"

#include <cstring>

namespace driver_test {

namespace {

using namespace zpregflt;

/// A notification's structure, with what the gates read in it.
struct Notification {
    alignas(8) std::byte bytes[160] = {};

    void SetStatus(NTSTATUS status) {
        reinterpret_cast<REG_POST_OPERATION_INFORMATION*>(bytes)->Status = status;
    }
    void SetContext(const OperationEntry& row, KeyObjectContext* context) {
        std::memcpy(bytes + row.ObjectContextOffset, &context, sizeof(context));
    }
};

class RegistryCallbackTest : public DriverTest {
protected:
    void SetUp() override { Start(); }

    /// What one notification adds to the row's counters. It never changes the operation's outcome.
    static Counters Notify(ULONG64 notifyClass, void* structure) {
        const auto row = static_cast<ULONG>(notifyClass);
        const Counters before = CountersOf(row);
        EXPECT_EQ(RegistryCallback(&State, reinterpret_cast<PVOID>(notifyClass), structure),
                  STATUS_SUCCESS)
            << notifyClass;
        return CountersOf(row) - before;
    }
    /// The rows that have all of `flags` and their class, in a thread of a monitored process.
    template <typename Action>
    void ForRowsWith(ULONG flags, Action action) {
        const ThreadScope thread(Worker());
        int count = 0;
        for (ULONG notifyClass = 0; notifyClass < kOperationClassCount; ++notifyClass) {
            const OperationEntry& row = OperationTable[notifyClass];
            if ((row.Flags & flags) != flags) continue;
            SCOPED_TRACE(row.Name);
            action(notifyClass, row);
            ++count;
        }
        EXPECT_GT(count, 0);
    }
};

TEST_F(RegistryCallbackTest, ClassesBeyondTheTableCountNowhere) {
    const auto total = [] {
        LONG64 sum = 0;
        for (const OperationEntry& row : OperationTable)
            sum += row.Hit + row.Fail + row.Filter + row.Log;
        return sum;
    };
    const LONG64 before = total();
    Notification notification;
    for (const ULONG64 notifyClass : {49ull, 50ull, 0xFFFFFFFFull, 0x100000000ull, ~0ull}) {
        EXPECT_EQ(RegistryCallback(&State, reinterpret_cast<PVOID>(notifyClass), &notification),
                  STATUS_SUCCESS);
    }
    EXPECT_EQ(total(), before);
}

TEST_F(RegistryCallbackTest, OnlyHitCountsWhatNobodyHandles) {
    const ThreadScope thread(Worker());
    Notification notification;
    notification.SetStatus(STATUS_UNSUCCESSFUL);
    for (ULONG notifyClass = 0; notifyClass < kOperationClassCount; ++notifyClass) {
        EXPECT_EQ(Notify(notifyClass, nullptr), (Counters{1, 0, 0, 0})) << notifyClass;
        if (OperationTable[notifyClass].Handler == nullptr) {
            EXPECT_EQ(Notify(notifyClass, &notification), (Counters{1, 0, 0, 0})) << notifyClass;
        }
    }
}

TEST_F(RegistryCallbackTest, SystemThreadsAreWatchedOnlyWhereTheRowSaysSo) {
    // The test's own thread is one.
    ProcessContext process = {};
    KeyObjectContext context = {0, nullptr, &process, nullptr, nullptr};
    for (ULONG notifyClass = 0; notifyClass < kOperationClassCount; ++notifyClass) {
        const OperationEntry& row = OperationTable[notifyClass];
        if ((row.Flags & OP_FLAG_DIRECT) != 0) continue;
        Notification notification;
        notification.SetContext(row, &context);
        const bool watched = (row.Flags & OP_FLAG_SYSTEM) != 0;
        EXPECT_EQ(Notify(notifyClass, &notification), (Counters{1, 0, watched ? 1 : 0, 0}))
            << row.Name;
    }
    EXPECT_EQ(static_cast<OperationMask>(context.KeyOperations),
              operation::kRestoreKey | operation::kSaveKey | operation::kReplaceKey);
}

TEST_F(RegistryCallbackTest, FailedOperations) {
    ProcessContext process = {};
    process.Operations = ~0u;
    KeyObjectContext context = {0, nullptr, &process, nullptr, nullptr};
    ForRowsWith(OP_FLAG_SUCCESS, [&](ULONG notifyClass, const OperationEntry& row) {
        // Errors, warnings and informational statuses alike.
        for (const NTSTATUS status :
             {STATUS_ACCESS_DENIED, static_cast<NTSTATUS>(0x80000005), STATUS_PENDING, 1}) {
            Notification notification;
            if (row.ObjectContextOffset != 0) notification.SetContext(row, &context);
            notification.SetStatus(status);
            EXPECT_EQ(Notify(notifyClass, &notification), (Counters{1, 1, 0, 0})) << status;
        }
    });
    EXPECT_EQ(context.KeyOperations, 0) << "a failed operation leaves no trace on the key";
}

TEST_F(RegistryCallbackTest, KeysWithoutContextOrThatTheOpenerDoesNotWatch) {
    ForRowsWith(OP_FLAG_CONTEXT, [](ULONG notifyClass, const OperationEntry& row) {
        Notification notification;
        EXPECT_EQ(Notify(notifyClass, &notification), (Counters{1, 0, 0, 0}));
        if ((row.Flags & OP_FLAG_POLICY) == 0) return;
        ProcessContext process = {};
        process.Operations = ~row.Mask;
        KeyObjectContext context = {0x800, nullptr, &process, nullptr, nullptr};
        notification.SetContext(row, &context);
        EXPECT_EQ(Notify(notifyClass, &notification), (Counters{1, 0, 1, 0}));
        EXPECT_EQ(static_cast<OperationMask>(context.KeyOperations), 0x800 | row.Mask)
            << "the key remembers it all the same";
    });
}

TEST_F(RegistryCallbackTest, NoKeyEntryNoRecord) {
    ForRowsWith(OP_FLAG_KEY_ENTRY, [](ULONG notifyClass, const OperationEntry& row) {
        HANDLE event = nullptr;
        ASSERT_EQ(NtCreateEvent(&event, 0x1F0003, nullptr, NotificationEvent, FALSE),
                  STATUS_SUCCESS);
        PVOID nameless = nullptr;
        ASSERT_EQ(ObReferenceObjectByHandle(event, 0, nullptr, KernelMode, &nameless, nullptr),
                  STATUS_SUCCESS);
        ProcessContext process = {};
        process.Operations = row.Mask;
        KeyObjectContext context = {0, nullptr, &process, nullptr, nullptr};
        Notification notification;
        std::memcpy(notification.bytes, &nameless, sizeof(nameless));
        notification.SetContext(row, &context);
        EXPECT_EQ(Notify(notifyClass, &notification), (Counters{1, 0, 0, 0}));
        EXPECT_EQ(static_cast<OperationMask>(context.KeyOperations), row.Mask);
        EXPECT_EQ(context.Entry(), nullptr);
        ObfDereferenceObject(nameless);
        NtClose(event);
    });
}

TEST_F(RegistryCallbackTest, RecordedOperationIsLogged) {
    TheClient().SetNumber(IOCTL_ZPRF_SET_LOGGED_OPERATIONS, operation::kFlushKey);
    const ThreadScope thread(Worker());
    const KeyHandle key = platform::MakeKey(platform::kTestKey);
    const Counters before = CountersOf(RegNtPostFlushKey);
    EXPECT_EQ(NtFlushKey(key), STATUS_SUCCESS);
    EXPECT_EQ(CountersOf(RegNtPostFlushKey) - before, (Counters{1, 0, 0, 1}));
    // No room, since these stay reserved: the handler writes no record.
    ASSERT_TRUE(Space(0xFFE8) && Space(0xFFE8));
    EXPECT_EQ(NtFlushKey(key), STATUS_SUCCESS) << "the operation is none the worse";
    EXPECT_EQ(CountersOf(RegNtPostFlushKey) - before, (Counters{2, 0, 0, 1}));
}

TEST_F(RegistryCallbackTest, HandleUsedByAnotherProcessIsItsOpeners) {
    TheClient().SetNumber(IOCTL_ZPRF_SET_LOGGED_OPERATIONS, operation::kFlushKey);
    const ThreadScope thread(Worker());
    const KeyHandle key = platform::MakeKey(platform::kTestKey);
    const auto other = machine_->StartProcess({.imagePath = u"\\other.exe"});
    HANDLE duplicate = nullptr;
    ASSERT_EQ(NtDuplicateObject(reinterpret_cast<HANDLE>(Worker().Id()), key,
                                reinterpret_cast<HANDLE>(other->Id()), &duplicate, 0, 0, 2),
              STATUS_SUCCESS);
    const Counters before = CountersOf(RegNtPostFlushKey);
    {
        const ThreadScope inOther(*other);
        EXPECT_EQ(NtFlushKey(duplicate), STATUS_SUCCESS);
    }
    EXPECT_EQ(CountersOf(RegNtPostFlushKey) - before, (Counters{1, 0, 0, 1}));
    machine_->ExitProcess(*other);
}

TEST_F(RegistryCallbackTest, CleanupReachesItsHandlerInSystemThreads) {
    const ThreadScope thread(Worker());
    const KeyHandle key = platform::MakeKey(platform::kTestKey);
    ASSERT_NE(ContextOf(key), nullptr);
    ASSERT_EQ(CountersOf(RegNtCallbackObjectContextCleanup), (Counters{0, 0, 0, 0}));
    client_.reset();
    // Unregisters the callback in a system thread, which discards the contexts that are left.
    ASSERT_EQ(machine_->UnloadDriver(u"zpregflt"), STATUS_SUCCESS);
    EXPECT_EQ(CountersOf(RegNtCallbackObjectContextCleanup), (Counters{1, 0, 0, 0}));
}

/// Creation and opening come through the Ex classes; the old ones would mean that keys are missed.
TEST_F(RegistryCallbackTest, LegacyClassesStopTheSystem) {
    for (const ULONG64 notifyClass : {RegNtPostCreateKey, RegNtPostOpenKey}) {
        Notification notification;
        const auto record = platform::CatchBugcheck(
            [&] { RegistryCallback(&State, reinterpret_cast<PVOID>(notifyClass), &notification); });
        ASSERT_TRUE(record.has_value());
        EXPECT_EQ(record->code, kLegacyClassBugcheck);
        EXPECT_EQ(record->parameters[0], reinterpret_cast<std::uintptr_t>(&notification));
        EXPECT_EQ(record->parameters[1], reinterpret_cast<std::uintptr_t>(&State));
        EXPECT_EQ(record->parameters[2] | record->parameters[3], 0u);
    }
}

}  // namespace

}  // namespace driver_test
