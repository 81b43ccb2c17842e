// Which keys get a context, what it holds, and how records come to carry their key's path.
#include "driver/driver_fixture.h"

#include <barrier>
#include <cstring>
#include <thread>

namespace driver_test {

namespace {

using namespace zpregflt;
using platform::CreateKeyOf;
using platform::MakeKey;
using platform::OpenKeyOf;

constexpr ULONG kContextTag = MakeTag("ZRkc");

/// Key contexts that were given back.
LONG64 Released() {
    return CountersOf(RegNtCallbackObjectContextCleanup).hit;
}

class KeyContextTest : public DriverTest {
protected:
    void Exempt(bool exempt) {
        struct {
            ExemptionRequest header = {0, sizeof(ExemptionRequest), 0, 0, 0};
            char name[11] = "worker.exe";
        } request;
        const ULONG code = exempt ? IOCTL_ZPRF_EXEMPT_ADD : IOCTL_ZPRF_EXEMPT_REMOVE;
        EXPECT_EQ(TheClient().Control(code, &request, sizeof(request)), STATUS_SUCCESS);
    }
    /// Whether a key that the process opens now gets a context.
    bool IsMonitored(platform::Process& process) {
        const ThreadScope thread(process);
        const KeyHandle key = MakeKey(kTestKey);
        const KeyHandle opened = OpenKeyOf(kTestKey).key;
        const bool monitored = ContextOf(key) != nullptr;
        EXPECT_EQ(ContextOf(opened) != nullptr, monitored);
        return monitored;
    }
    /// Delivers everything and reads it.
    std::vector<Record> Collect(Loan& loan) {
        TheClient().Flush();
        EXPECT_EQ(loan.Wait(), STATUS_SUCCESS);
        return loan.Records();
    }
};

// --- Who is monitored ----------------------------------------------------------------------------

TEST_F(KeyContextTest, OverridePolicy) {
    const struct {
        std::uint32_t overridePolicy;
        bool client, exemptWorker;
    } cases[] = {{0, false, false},
                 {OVERRIDE_TRUSTED, true, false},
                 {OVERRIDE_EXEMPTIONS, false, true},
                 {OVERRIDE_TRUSTED | OVERRIDE_EXEMPTIONS, true, true},
                 {~3u, false, false}};
    for (const auto& c : cases) {
        Boot({});
        SetParameter(u"Report", u"Override", c.overridePolicy);
        Start();
        EXPECT_EQ(IsMonitored(TheClient().Owner()), c.client) << c.overridePolicy;
        EXPECT_TRUE(IsMonitored(Worker())) << c.overridePolicy;
        Exempt(true);
        EXPECT_EQ(IsMonitored(Worker()), c.exemptWorker) << c.overridePolicy;
        Stop();
    }
}

TEST_F(KeyContextTest, ExemptionsCountFromTheNextKeyOn) {
    Start();
    const ThreadScope thread(Worker());
    for (int round = 0; round < 3; ++round) {
        EXPECT_TRUE(IsMonitored(Worker())) << round;
        const KeyHandle before = MakeKey(kTestKey);
        Exempt(true);
        EXPECT_FALSE(IsMonitored(Worker())) << round;
        EXPECT_FALSE(IsMonitored(Worker())) << round;
        EXPECT_NE(ContextOf(before), nullptr) << "decided when it was opened";
        Exempt(false);
    }
}

TEST_F(KeyContextTest, ExemptionIsCheckedOncePerListChange) {
    Start();
    Exempt(true);
    const ThreadScope thread(Worker());
    EXPECT_FALSE(IsMonitored(Worker()));
    // The verdict of the process, which no key shows: its context.
    PVOID block = nullptr;
    ProcessRecord* record = nullptr;
    ASSERT_EQ(
        ZPkPsGet(State.ProcessTracking, reinterpret_cast<HANDLE>(Worker().Id()), &record, &block),
        STATUS_SUCCESS);
    auto& context = *static_cast<ProcessContext*>(block);
    ExemptionVerdict verdict = {};
    verdict.Word = context.Exemption;
    EXPECT_EQ(verdict.s.ExemptState, EXEMPT_CHECKED | EXEMPT_YES);
    EXPECT_EQ(verdict.s.CheckedGeneration, 1u);
    // A verdict for this generation is believed; one for another is not.
    verdict.s.ExemptState = EXEMPT_CHECKED;
    context.Exemption = verdict.Word;
    EXPECT_TRUE(IsMonitored(Worker()));
    verdict.s.CheckedGeneration = 0;
    context.Exemption = verdict.Word;
    EXPECT_FALSE(IsMonitored(Worker()));
    ZPkPsReleaseContext(block);
    ZPkPsRelease(record);
}

TEST_F(KeyContextTest, LoggedOperationsReachNewProcesses) {
    Start();
    const auto operationsOf = [](platform::Process& process) {
        const ThreadScope thread(process);
        const KeyHandle key = MakeKey(kTestKey);
        return ContextOf(key)->ProcessContext->Operations;
    };
    EXPECT_EQ(operationsOf(Worker()), 0x17u);
    TheClient().SetNumber(IOCTL_ZPRF_SET_LOGGED_OPERATIONS, 0x1234);
    EXPECT_EQ(operationsOf(Worker()), 0x17u);
    const auto later = machine_->StartProcess({.imagePath = kWorkerImage});
    EXPECT_EQ(operationsOf(*later), 0x1234u);
    machine_->ExitProcess(*later);
}

TEST_F(KeyContextTest, FailuresLeaveTheKeyWithoutContext) {
    const platform::PlannedFault faults[] = {
        {.routine = "ExAllocatePoolWithTag", .tag = MakeTag("ZRpc")},
        {.routine = "ExAllocateFromPagedLookasideList", .tag = kContextTag},
        {.routine = "CmSetCallbackObjectContext", .status = STATUS_INVALID_PARAMETER},
    };
    for (const platform::PlannedFault& fault : faults) {
        Boot({});
        Start();
        {
            const ThreadScope thread(Worker());
            const FaultPlan plan(fault);
            const KeyHandle key = MakeKey(kTestKey);
            EXPECT_TRUE(plan.Fired()) << fault.routine;
            EXPECT_EQ(ContextOf(key), nullptr) << fault.routine;
            EXPECT_EQ(Released(), 0) << fault.routine;
        }
        EXPECT_TRUE(IsMonitored(Worker())) << fault.routine;
        Stop();
    }
}

// --- What a context holds ------------------------------------------------------------------------

TEST_F(KeyContextTest, CreatedAndOpenedKeys) {
    StartRecording(operation::kCreateKeyEx);
    const ThreadScope thread(Worker());
    struct Case {
        const char* name;
        std::function<platform::Opened()> open;
        OperationMask operations;
        bool hasEntry, recorded;
    };
    const Case cases[] = {
        {"created", [] { return CreateKeyOf(kTestKey); }, operation::kCreateKeyEx, true, true},
        {"found by creation", [] { return CreateKeyOf(kTestKey); },
         operation::kCreateKeyEx | operation::kOpenKeyEx, false, false},
        {"opened", [] { return OpenKeyOf(kTestKey); }, operation::kOpenKeyEx, false, false},
    };
    std::vector<KeyHandle> keys;
    for (const Case& c : cases) {
        const LONG64 log = CountersOf(RegNtPostCreateKeyEx).log;
        platform::Opened opened = c.open();
        ASSERT_EQ(opened.status, STATUS_SUCCESS) << c.name;
        const KeyObjectContext* context = ContextOf(opened.key);
        ASSERT_NE(context, nullptr) << c.name;
        EXPECT_EQ(static_cast<OperationMask>(context->KeyOperations), c.operations) << c.name;
        EXPECT_EQ(context->Process->ProcessId, Worker().Id()) << c.name;
        EXPECT_EQ(context->Node() != nullptr, c.hasEntry) << c.name;
        EXPECT_EQ(context->Entry() != nullptr, c.hasEntry) << c.name;
        EXPECT_EQ(CountersOf(RegNtPostCreateKeyEx).log - log, c.recorded ? 1 : 0) << c.name;
        keys.push_back(std::move(opened.key));
    }
    // The first operation that needs the entry gives the others the one that there is.
    for (const KeyHandle& key : keys)
        platform::SetValue(key, u"v", REG_BINARY, "1");
    for (const KeyHandle& key : keys) {
        EXPECT_EQ(ContextOf(key)->Node(), ContextOf(keys[0])->Node());
        EXPECT_EQ(ContextOf(key)->Entry(), ContextOf(keys[0])->Entry());
    }
    const LONG64 released = Released();
    keys.clear();
    EXPECT_EQ(Released() - released, 3);
}

TEST_F(KeyContextTest, PathsOfCreatedKeys) {
    StartRecording(operation::kCreateKeyEx);
    const ThreadScope thread(Worker());
    const auto loan = TheClient().Lend();
    const KeyHandle parent = MakeKey(u"\\registry\\MACHINE\\Parent");
    const KeyHandle relative = MakeKey(u"Sub", {.root = parent});
    const KeyHandle deeper = MakeKey(u"A", {.root = relative});
    const std::vector<Record> records = Collect(*loan);
    std::vector<std::u16string> paths;
    for (const Record& record : records)
        paths.push_back(record.key.value_or(u"(none)"));
    // Each component as it was first spelled.
    EXPECT_EQ(paths, (std::vector<std::u16string>{u"\\registry\\MACHINE\\Parent",
                                                  u"\\registry\\MACHINE\\Parent\\Sub",
                                                  u"\\registry\\MACHINE\\Parent\\Sub\\A"}));
}

// --- Names in records ----------------------------------------------------------------------------

TEST_F(KeyContextTest, HeaderOfARecord) {
    StartRecording(operation::kCreateKeyEx | operation::kFlushKey);
    machine_->SetSystemTime(0x1234567890);
    const auto loan = TheClient().Lend();
    const ThreadScope thread(Worker());
    const KeyHandle key = MakeKey(kTestKey);
    EXPECT_EQ(platform::QueryValue(key, u"missing").status, STATUS_OBJECT_NAME_NOT_FOUND);
    NtFlushKey(key);
    const std::vector<Record> records = Collect(*loan);
    ASSERT_EQ(records.size(), 2u);
    EXPECT_EQ(records[0].header.Type, RecordType::kKeyCreated);
    EXPECT_EQ(records[1].header.Type, RecordType::kKeyFlushed);
    EXPECT_EQ(records[0].header.KeyOperations, operation::kCreateKeyEx);
    EXPECT_EQ(records[1].header.KeyOperations, operation::kCreateKeyEx | operation::kFlushKey);
    for (const Record& record : records) {
        EXPECT_EQ(record.header.ProcessId, Worker().Id());
        EXPECT_EQ(record.header.ProcessKey, ContextOf(key)->Process->ProcessKey);
        EXPECT_EQ(record.header.SystemTime, 0x1234567890u);
    }
}

/// Two keys of which the second record refers back, through another handle, to the first's path.
TEST_F(KeyContextTest, PathIsWrittenOncePerBuffer) {
    SetParameter(u"Report", u"Operations", operation::kFlushKey);
    StartWithoutBootBuffers();
    const ThreadScope thread(Worker());
    // Thirty characters.
    const std::u16string path = u"\\REGISTRY\\MACHINE\\Test12345678";
    ASSERT_EQ(path.size() * 2, 60u);
    const KeyHandle first = MakeKey(path);
    const KeyHandle second = OpenKeyOf(path).key;
    const auto loan = TheClient().Lend();
    for (int round = 0; round < 2; ++round) {
        NtFlushKey(first);
        NtFlushKey(second);
        const std::vector<Record> records = Collect(*loan);
        ASSERT_EQ(records.size(), 2u) << round;
        EXPECT_EQ(loan->Information(), 3u);
        EXPECT_EQ(records[0].offset, 8u);
        EXPECT_EQ(records[0].header.NameOffset, 40);
        EXPECT_EQ(records[0].header.NextOffset, 104);
        EXPECT_EQ(records[1].offset, 112u);
        EXPECT_EQ(records[1].header.NameOffset, -64);
        EXPECT_EQ(records[1].header.NextOffset, 0);
        EXPECT_EQ(records[0].key, path);
        EXPECT_EQ(records[1].key, path);
        EXPECT_EQ(loan->Send(), STATUS_PENDING);
    }
}

/// A boot buffer comes back with the old path still in its memory, but under another number.
TEST_F(KeyContextTest, BootBufferThatWasResetGetsThePathAgain) {
    StartRecording(operation::kFlushKey);
    const ThreadScope thread(Worker());
    const KeyHandle key = MakeKey(kTestKey);
    constexpr int kBootBuffers = 3;
    for (int round = 0; round <= 2 * kBootBuffers; ++round) {
        const auto loan = TheClient().Lend();
        const bool sameBufferAgain = round % kBootBuffers == 0;
        if (sameBufferAgain) NtFlushKey(key);
        const std::vector<Record> records = Collect(*loan);
        ASSERT_EQ(records.size(), sameBufferAgain ? 1u : 0u) << round;
        if (sameBufferAgain) {
            EXPECT_EQ(records[0].key, kTestKey) << round;
            EXPECT_EQ(loan->Information(), 3u) << "record, path and their copy, round " << round;
        }
    }
}

TEST_F(KeyContextTest, RecordAndPathMoveTogether) {
    SetParameter(u"Report", u"Operations", operation::kFlushKey);
    StartWithoutBootBuffers();
    const ThreadScope thread(Worker());
    const KeyHandle key = MakeKey(kTestKey);
    const auto second = TheClient().Lend();
    const auto first = TheClient().Lend();
    // Leaves room for the record, not for its path.
    WriteMark(1, 0xFFE8 - 48);
    NtFlushKey(key);
    ASSERT_EQ(second->Wait(), STATUS_SUCCESS);
    const std::vector<Record> left = second->Records();
    EXPECT_EQ(Marks(left), std::vector<std::uint64_t>{1}) << "the abandoned record is not there";
    EXPECT_EQ(second->Information(), 2u);
    const std::vector<Record> moved = Collect(*first);
    ASSERT_EQ(moved.size(), 1u);
    EXPECT_EQ(moved[0].header.NameOffset, 40);
    EXPECT_EQ(moved[0].key, kTestKey);
    EXPECT_EQ(first->Information(), 1u) << "one reservation for both";
}

TEST_F(KeyContextTest, NoRoomForThePathAnywhere) {
    SetParameter(u"Report", u"Operations", operation::kFlushKey);
    StartWithoutBootBuffers();
    const ThreadScope thread(Worker());
    const KeyHandle key = MakeKey(kTestKey);
    const auto loan = TheClient().Lend();
    WriteMark(1, 0xFFE8 - 48);
    const Counters before = CountersOf(RegNtPostFlushKey);
    NtFlushKey(key);
    EXPECT_EQ(CountersOf(RegNtPostFlushKey) - before, (Counters{1, 0, 0, 0}));
    EXPECT_EQ(loan->Wait(), STATUS_SUCCESS);
    EXPECT_EQ(Marks(loan->Records()), std::vector<std::uint64_t>{1});
    EXPECT_EQ(loan->Send(), STATUS_PENDING);
    NtFlushKey(key);
    const std::vector<Record> next = Collect(*loan);
    ASSERT_EQ(next.size(), 1u) << "the key's entry is free again";
    EXPECT_EQ(next[0].key, kTestKey);
}

/// A key that could not be given an entry is recorded without a name; the next operation tries
/// again.
TEST_F(KeyContextTest, CreationWithoutEntry) {
    for (const ULONG tag : {MakeTag("ZRtc"), zpklib::kNodeTag}) {
        Boot({});
        StartRecording(operation::kCreateKeyEx | operation::kFlushKey);
        auto loan = TheClient().Lend();
        {
            const ThreadScope thread(Worker());
            KeyHandle key;
            {
                const FaultPlan plan({.routine = "ExAllocatePoolWithTag", .tag = tag});
                key = MakeKey(kTestKey);
                EXPECT_TRUE(plan.Fired()) << platform::TagText(tag);
            }
            NtFlushKey(key);
        }
        const std::vector<Record> records = Collect(*loan);
        ASSERT_EQ(records.size(), 2u) << platform::TagText(tag);
        EXPECT_EQ(records[0].header.NameOffset, 0) << platform::TagText(tag);
        EXPECT_EQ(records[1].key, kTestKey) << platform::TagText(tag);
        loan.reset();
        Stop();
    }
}

// --- Threads -------------------------------------------------------------------------------------

/// Threads that use one handle fill its context at once: nothing is lost and nothing given back
/// twice, and every record names the key.
TEST_F(KeyContextTest, ThreadsFillOneContextAtOnce) {
    SetParameter(u"Report", u"Operations", operation::kFlushKey);
    StartWithoutBootBuffers();
    constexpr int kThreads = 4;
    constexpr int kRounds = 300;
    const ThreadScope thread(Worker());
    const auto loan = TheClient().Lend(0x100000);
    KeyHandle key;
    std::barrier round(kThreads + 1);
    std::vector<std::thread> threads;
    for (int i = 0; i < kThreads; ++i) {
        threads.emplace_back([&] {
            const ThreadScope worker(Worker());
            for (int n = 0; n < kRounds; ++n) {
                round.arrive_and_wait();
                EXPECT_EQ(NtFlushKey(key), STATUS_SUCCESS);
                round.arrive_and_wait();
            }
        });
    }
    for (int n = 0; n < kRounds; ++n) {
        const std::u16string path =
            std::u16string(kTestKey) + platform::ToUtf16(std::to_string(n % 2 == 0 ? n : n - 1));
        // Half of the keys are created, so that they have an entry already, by another object.
        const KeyHandle other = n % 2 == 0 ? KeyHandle() : MakeKey(path);
        machine_->SetRegistryDword(path, u"v", 1);
        key = OpenKeyOf(path).key;
        EXPECT_EQ(ContextOf(key)->Entry(), nullptr);
        round.arrive_and_wait();
        round.arrive_and_wait();
        const KeyObjectContext& context = *ContextOf(key);
        EXPECT_NE(context.Entry(), nullptr);
        if (other != nullptr) {
            NtFlushKey(other);
            EXPECT_EQ(context.Entry(), ContextOf(other)->Entry());
        }
    }
    for (std::thread& worker : threads)
        worker.join();
    key.Close();
    const std::vector<Record> records = Collect(*loan);
    EXPECT_EQ(records.size(), static_cast<std::size_t>(kRounds * kThreads + kRounds / 2));
    for (const Record& record : records)
        EXPECT_TRUE(record.key && record.key->starts_with(kTestKey));
}

/// Threads of one new process meet in its first keys: one process context comes of it.
TEST_F(KeyContextTest, ThreadsOpenTheFirstKeysOfAProcessAtOnce) {
    Start();
    constexpr int kThreads = 4;
    constexpr int kRounds = 100;
    for (int n = 0; n < kRounds; ++n) {
        const auto process = machine_->StartProcess({.imagePath = kWorkerImage});
        std::barrier start(kThreads);
        std::vector<ProcessContext*> contexts(kThreads);
        std::vector<std::thread> threads;
        for (ProcessContext*& context : contexts) {
            threads.emplace_back([&] {
                const ThreadScope thread(*process);
                start.arrive_and_wait();
                const KeyHandle key = MakeKey(kTestKey);
                context = ContextOf(key)->ProcessContext;
                start.arrive_and_wait();
            });
        }
        for (std::thread& thread : threads)
            thread.join();
        for (const ProcessContext* context : contexts)
            EXPECT_EQ(context, contexts[0]);
        machine_->ExitProcess(*process);
    }
    EXPECT_EQ(platform::QueryPoolUsage(MakeTag("ZRpc")).blocks, 0u);
}

}  // namespace

}  // namespace driver_test
