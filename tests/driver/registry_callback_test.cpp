// The dispatcher: the operation table's rows, the gates in their order and what they count.
#include "intercept/registry_callback.h"
#include "driver/driver_fixture.h"
#include "intercept/legacy_classes.h"

#include <cstring>

namespace driver_test {

namespace {

using namespace zpregflt;

struct HandledRow {
    ULONG notifyClass;
    const char* name;
    ULONG flags;
    OperationMask mask;
    std::size_t contextOffset;
};

constexpr std::size_t kPost = offsetof(REG_POST_OPERATION_INFORMATION, ObjectContext);

// clang-format off
constexpr HandledRow kHandled[] = {
    {0, "RegNtPreDeleteKey", 0x1, 0x1, offsetof(REG_DELETE_KEY_INFORMATION, ObjectContext)},
    {1, "RegNtPreSetValueKey", 0xB, 0x2, offsetof(REG_SET_VALUE_KEY_INFORMATION, ObjectContext)},
    {4, "RegNtPreRenameKey", 0x1, 0x10, offsetof(REG_RENAME_KEY_INFORMATION, ObjectContext)},
    {11, "RegNtPostCreateKey", 0x10, 0, 0},
    {13, "RegNtPostOpenKey", 0x10, 0, 0},
    {15, "RegNtPostDeleteKey", 0x1, 0x1, kPost},
    {16, "RegNtPostSetValueKey", 0xB, 0x2, kPost},
    {17, "RegNtPostDeleteValueKey", 0xD, 0x4, kPost},
    {18, "RegNtPostSetInformationKey", 0xF, 0x8, kPost},
    {19, "RegNtPostRenameKey", 0x1, 0x10, kPost},
    {20, "RegNtPostEnumerateKey", 0xF, 0x20, kPost},
    {21, "RegNtPostEnumerateValueKey", 0xF, 0x40, kPost},
    {22, "RegNtPostQueryKey", 0xF, 0x80, kPost},
    {23, "RegNtPostQueryValueKey", 0xF, 0x100, kPost},
    {24, "RegNtPostQueryMultipleValueKey", 0xF, 0x200, kPost},
    {25, "RegNtPostKeyHandleClose", 0xF, 0x100000, kPost},
    {27, "RegNtPostCreateKeyEx", 0x4, 0x400, 0},
    {29, "RegNtPostOpenKeyEx", 0x4, 0x800, 0},
    {31, "RegNtPostFlushKey", 0xF, 0x1000, kPost},
    {33, "RegNtPostLoadKey", 0xF, 0x2000, kPost},
    {35, "RegNtPostUnLoadKey", 0xF, 0x4000, kPost},
    {37, "RegNtPostQueryKeySecurity", 0xF, 0x8000, kPost},
    {38, "RegNtPreSetKeySecurity", 0xB, 0x10000, offsetof(REG_SET_KEY_SECURITY_INFORMATION, ObjectContext)},
    {39, "RegNtPostSetKeySecurity", 0xB, 0x10000, kPost},
    {40, "RegNtCallbackObjectContextCleanup", 0x10, 0, 0},
    {42, "RegNtPostRestoreKey", 0x2F, 0x20000, kPost},
    {44, "RegNtPostSaveKey", 0x2F, 0x40000, kPost},
    {46, "RegNtPostReplaceKey", 0x2F, 0x80000, kPost},
    {48, "RegNtPostQueryKeyName", 0xF, 0x200000, kPost},
};
// clang-format on

const HandledRow* FindHandled(ULONG notifyClass) {
    for (const HandledRow& row : kHandled) {
        if (row.notifyClass == notifyClass) return &row;
    }
    return nullptr;
}

/// A notification's structure, with what the gates read in it.
struct Notification {
    alignas(8) std::byte bytes[160] = {};

    void SetStatus(NTSTATUS status) {
        reinterpret_cast<REG_POST_OPERATION_INFORMATION*>(bytes)->Status = status;
    }
    void SetContext(std::size_t offset, KeyObjectContext* context) {
        std::memcpy(bytes + offset, &context, sizeof(context));
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
    /// The rows that have all of `flags`, and a thread of a monitored process to try them in.
    template <typename Action>
    void ForRowsWith(ULONG flags, Action action) {
        const ThreadScope thread(Worker());
        for (const HandledRow& row : kHandled) {
            SCOPED_TRACE(row.name);
            if ((row.flags & flags) == flags) action(row);
        }
    }
};

TEST_F(RegistryCallbackTest, Table) {
    for (ULONG notifyClass = 0; notifyClass < kOperationClassCount; ++notifyClass) {
        const OperationEntry& row = OperationTable[notifyClass];
        const HandledRow* handled = FindHandled(notifyClass);
        EXPECT_EQ(row.Handler != nullptr, handled != nullptr) << row.Name;
        EXPECT_EQ(row.Flags, handled != nullptr ? handled->flags : 0) << row.Name;
        EXPECT_EQ(row.Mask, handled != nullptr ? handled->mask : 0) << row.Name;
        EXPECT_EQ(row.ObjectContextOffset, handled != nullptr ? handled->contextOffset : 0)
            << row.Name;
        EXPECT_EQ(row.ObjectOffset, 0u) << row.Name;
        if (handled != nullptr) {
            EXPECT_STREQ(row.Name, handled->name);
        }
        const bool needsContext = (row.Flags & (OP_FLAG_POLICY | OP_FLAG_KEY_ENTRY)) != 0;
        EXPECT_TRUE(!needsContext || (row.Flags & OP_FLAG_CONTEXT) != 0) << row.Name;
    }
}

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
        if (FindHandled(notifyClass) == nullptr) {
            EXPECT_EQ(Notify(notifyClass, &notification), (Counters{1, 0, 0, 0})) << notifyClass;
        }
    }
}

TEST_F(RegistryCallbackTest, SystemThreadsAreWatchedOnlyWhereTheRowSaysSo) {
    // The test's own thread is one.
    ProcessContext process = {};
    KeyObjectContext context = {0, nullptr, &process, nullptr, nullptr};
    for (const HandledRow& row : kHandled) {
        if ((row.flags & OP_FLAG_DIRECT) != 0) continue;
        Notification notification;
        notification.SetContext(row.contextOffset, &context);
        const bool watched = (row.flags & OP_FLAG_SYSTEM) != 0;
        EXPECT_EQ(Notify(row.notifyClass, &notification), (Counters{1, 0, watched ? 1 : 0, 0}))
            << row.name;
    }
    EXPECT_EQ(static_cast<OperationMask>(context.KeyOperations),
              operation::kRestoreKey | operation::kSaveKey | operation::kReplaceKey);
}

TEST_F(RegistryCallbackTest, FailedOperations) {
    ProcessContext process = {};
    process.Operations = ~0u;
    KeyObjectContext context = {0, nullptr, &process, nullptr, nullptr};
    ForRowsWith(OP_FLAG_SUCCESS, [&](const HandledRow& row) {
        // Errors, warnings and informational statuses alike.
        for (const NTSTATUS status :
             {STATUS_ACCESS_DENIED, static_cast<NTSTATUS>(0x80000005), STATUS_PENDING, 1}) {
            Notification notification;
            if (row.contextOffset != 0) notification.SetContext(row.contextOffset, &context);
            notification.SetStatus(status);
            EXPECT_EQ(Notify(row.notifyClass, &notification), (Counters{1, 1, 0, 0})) << status;
        }
    });
    EXPECT_EQ(context.KeyOperations, 0) << "a failed operation leaves no trace on the key";
}

TEST_F(RegistryCallbackTest, KeysWithoutContext) {
    ForRowsWith(OP_FLAG_CONTEXT, [](const HandledRow& row) {
        Notification notification;
        EXPECT_EQ(Notify(row.notifyClass, &notification), (Counters{1, 0, 0, 0}));
    });
}

TEST_F(RegistryCallbackTest, OperationsThatTheOpenerDoesNotWatch) {
    ForRowsWith(OP_FLAG_POLICY, [](const HandledRow& row) {
        ProcessContext process = {};
        process.Operations = ~row.mask;
        KeyObjectContext context = {0x800, nullptr, &process, nullptr, nullptr};
        Notification notification;
        notification.SetContext(row.contextOffset, &context);
        EXPECT_EQ(Notify(row.notifyClass, &notification), (Counters{1, 0, 1, 0}));
        EXPECT_EQ(static_cast<OperationMask>(context.KeyOperations), 0x800 | row.mask)
            << "the key remembers it all the same";
    });
}

TEST_F(RegistryCallbackTest, NoKeyEntryNoRecord) {
    ForRowsWith(OP_FLAG_KEY_ENTRY, [](const HandledRow& row) {
        HANDLE event = nullptr;
        ASSERT_EQ(NtCreateEvent(&event, 0x1F0003, nullptr, NotificationEvent, FALSE),
                  STATUS_SUCCESS);
        PVOID nameless = nullptr;
        ASSERT_EQ(ObReferenceObjectByHandle(event, 0, nullptr, KernelMode, &nameless, nullptr),
                  STATUS_SUCCESS);
        ProcessContext process = {};
        process.Operations = row.mask;
        KeyObjectContext context = {0, nullptr, &process, nullptr, nullptr};
        Notification notification;
        std::memcpy(notification.bytes, &nameless, sizeof(nameless));
        notification.SetContext(row.contextOffset, &context);
        EXPECT_EQ(Notify(row.notifyClass, &notification), (Counters{1, 0, 0, 0}));
        EXPECT_EQ(static_cast<OperationMask>(context.KeyOperations), row.mask);
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
