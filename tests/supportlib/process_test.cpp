// Process records, and the contexts that clients attach to processes.
#include "tracking_handle.h"

#include <barrier>
#include <latch>
#include <set>
#include <thread>

namespace {

class ProcessTest : public LibraryTest {
protected:
    void PrepareMachine() override {
        older = machine->StartProcess({.imagePath = kShellImage, .token = {}});
        TrackingHandle::ForgetCleaned();
    }
    void TearDown() override {
        older = {};
        LibraryTest::TearDown();
    }
    platform::ObjectRef<platform::Process> Start(std::u16string image = kShellImage,
                                                 std::uintptr_t id = 0) {
        return machine->StartProcess({.imagePath = std::move(image), .id = id, .token = {}});
    }
    void SetTrustedImages(const std::vector<std::u16string>& images) {
        machine->SetRegistryStrings(platform::ServiceKeyPath(u"zpklib"), u"TrustedImages", images);
    }

    platform::ObjectRef<platform::Process> older;  // than the library
};

TEST_F(ProcessTest, RecordsDescribeEveryProcess) {
    const TrackingHandle tracking;
    const auto younger = Start(u"\\Device\\Disk1\\tool.exe");
    const struct {
        platform::Process& process;
        std::u16string_view image;
        ULONG flags;
    } cases[] = {
        {*older, kShellImage, 0},
        {*younger, u"\\Device\\Disk1\\tool.exe", 0},
        {machine->SystemProcess(), u"System", PROCESS_TRUSTED},
    };
    std::set<ULONG64> keys;
    for (const auto& c : cases) {
        SCOPED_TRACE(platform::ToUtf8(c.image));
        const Tracked first(tracking, IdOf(c.process));
        ASSERT_EQ(first.status, STATUS_SUCCESS);
        EXPECT_EQ(first.record->ProcessId, c.process.Id());
        EXPECT_EQ(first.Image(), c.image);
        EXPECT_EQ(first.record->Flags, c.flags);
        EXPECT_EQ(first.block, nullptr);
        EXPECT_EQ(Tracked(tracking, IdOf(c.process)).record, first.record);
        EXPECT_TRUE(keys.insert(first.record->ProcessKey).second);
    }
}

TEST_F(ProcessTest, NoRecordWithoutAProcess) {
    const TrackingHandle tracking;
    const auto ended = Start();
    machine->ExitProcess(*ended);
    machine->ExitProcess(*older);
    for (const HANDLE id : {IdOf(*ended), IdOf(*older), reinterpret_cast<HANDLE>(0x7FFFFFFC),
                            static_cast<HANDLE>(nullptr)}) {
        EXPECT_EQ(Tracked(tracking, id).status, STATUS_INVALID_CID) << id;
        std::uint64_t* block = tracking.NewBlock(1);
        PVOID existing = block;
        EXPECT_EQ(ZPkPsSetContext(id, ZPK_SET_CONTEXT_KEEP_EXISTING, block, &existing),
                  STATUS_INVALID_CID);
        EXPECT_EQ(existing, nullptr);
        ZPkPsReleaseContext(block);
    }
}

TEST_F(ProcessTest, ARecordStaysAsItWasWhenItsIdIsUsedAgain) {
    const TrackingHandle tracking;
    // The clock tells the two apart on no system where it stands still.
    machine->SetSystemTime(0x1D0'0000'0000'0000);
    const auto first = Start(u"\\first.exe", 0x1000);
    const Tracked held(tracking, IdOf(*first));
    const ULONG64 key = held.record->ProcessKey;
    machine->ExitProcess(*first);
    const auto second = Start(u"\\second.exe", 0x1000);
    const Tracked other(tracking, IdOf(*second));
    EXPECT_EQ(held.Image(), u"\\first.exe");
    EXPECT_EQ(held.record->ProcessKey, key);
    EXPECT_EQ(other.Image(), u"\\second.exe");
    EXPECT_NE(other.record->ProcessKey, key);
    machine->SetSystemTime(0);
}

TEST_F(ProcessTest, TheFirstContextStays) {
    const TrackingHandle tracking;
    const TrackingHandle other(2);
    std::uint64_t* first = tracking.NewBlock(1);
    std::uint64_t* second = tracking.NewBlock(2);
    std::uint64_t* others = other.NewBlock(4);
    const HANDLE id = IdOf(*older);
    PVOID existing = nullptr;
    EXPECT_EQ(ZPkPsSetContext(id, 0, first, &existing), STATUS_INVALID_PARAMETER);
    EXPECT_EQ(ZPkPsSetContext(id, 1, first, &existing), STATUS_SUCCESS);
    EXPECT_EQ(existing, nullptr);
    EXPECT_EQ(ZPkPsSetContext(id, 1, second, &existing), ZPK_STATUS_CONTEXT_EXISTS);
    EXPECT_EQ(existing, first);
    ZPkPsReleaseContext(existing);
    EXPECT_EQ(ZPkPsSetContext(id, 1, others, &existing), STATUS_SUCCESS);
    ZPkPsReleaseContext(second);
    EXPECT_EQ(TrackingHandle::cleanedSum.load(), 2u);

    EXPECT_EQ(Tracked(tracking, id).block, first);
    EXPECT_EQ(Tracked(other, id).block, others);
    ProcessRecord* record = nullptr;
    EXPECT_EQ(ZPkPsGet(tracking.Get(), id, &record, nullptr), STATUS_SUCCESS);
    ZPkPsRelease(record);
    ZPkPsReleaseContext(first);
    ZPkPsReleaseContext(others);
    EXPECT_EQ(TrackingHandle::cleanedCount.load(), 1);
}

TEST_F(ProcessTest, AContextIsCleanedUpOnceWhenNobodyNeedsIt) {
    TrackingHandle tracking;
    const auto process = Start();
    const auto attach = [&](platform::Process& to, std::uint64_t number) {
        std::uint64_t* block = tracking.NewBlock(number);
        PVOID existing = nullptr;
        EXPECT_EQ(ZPkPsSetContext(IdOf(to), 1, block, &existing), STATUS_SUCCESS);
        return block;
    };
    std::uint64_t* held = attach(*process, 1);
    ZPkPsReleaseContext(attach(*older, 2));
    ZPkPsReleaseContext(attach(machine->SystemProcess(), 4));
    EXPECT_EQ(TrackingHandle::cleanedCount.load(), 0);

    machine->ExitProcess(*process);
    EXPECT_EQ(TrackingHandle::cleanedCount.load(), 0) << "a reference is held";
    ZPkPsReleaseContext(held);
    EXPECT_EQ(TrackingHandle::cleanedSum.load(), 1u);
    machine->ExitProcess(*older);
    EXPECT_EQ(TrackingHandle::cleanedSum.load(), 3u) << "with the process";
    tracking.End();
    EXPECT_EQ(TrackingHandle::cleanedSum.load(), 7u) << "with the registration";
    EXPECT_EQ(TrackingHandle::cleanedCount.load(), 3);
    EXPECT_EQ(platform::QueryPoolUsage(kTestContextTag).blocks, 0u);
}

/// The client may be gone as soon as its registration has ended.
TEST_F(ProcessTest, ARegistrationEndsBehindTheCleanUpsOfAProcessThatEnds) {
    TrackingHandle tracking;
    const auto process = Start();
    std::uint64_t* block = tracking.NewBlock(1);
    PVOID existing = nullptr;
    ASSERT_EQ(ZPkPsSetContext(IdOf(*process), 1, block, &existing), STATUS_SUCCESS);
    ZPkPsReleaseContext(block);
    std::latch inCleanup(1);
    std::latch goOn(1);
    TrackingHandle::atCleanup = [&] {
        inCleanup.count_down();
        goOn.wait();
    };
    std::thread ending([&] { machine->ExitProcess(*process); });
    inCleanup.wait();
    std::atomic<bool> hasEnded{false};
    std::thread unregistering([&] {
        tracking.End();
        hasEnded = true;
    });
    std::this_thread::sleep_for(std::chrono::milliseconds(20));
    EXPECT_FALSE(hasEnded);
    goOn.count_down();
    unregistering.join();
    EXPECT_EQ(TrackingHandle::cleanedCount.load(), 1);
    ending.join();
    TrackingHandle::atCleanup = nullptr;
}

TEST_F(ProcessTest, AClientRegistersOnce) {
    {
        const TrackingHandle first;
        EXPECT_EQ(first.Status(), STATUS_SUCCESS);
        const TrackingHandle second;
        EXPECT_EQ(second.Status(), STATUS_OBJECT_NAME_COLLISION);
        EXPECT_EQ(second.Get(), nullptr);
    }
    EXPECT_EQ(TrackingHandle().Status(), STATUS_SUCCESS);
    const GUID guid = {};
    const ProcessTrackingConfig config = {};
    ZPK_PROCESS_TRACKING* tracking = nullptr;
    EXPECT_EQ(ZPkPsRegister(&guid, &config, &tracking), STATUS_INVALID_PARAMETER);
}

TEST_F(ProcessTest, TrustedImagesAreListedByPathOrItsEnd) {
    ASSERT_EQ(machine->UnloadDriver(u"zpklib"), STATUS_SUCCESS);
    SetTrustedImages({u"monitor.exe", u"Tools\\agent.EXE", u"\\bin\\svc.exe", u"\\Device\\d.exe"});
    ASSERT_EQ(machine->LoadDriver(LibraryImage()), STATUS_SUCCESS);
    const TrackingHandle tracking;
    const struct {
        const char16_t* image;
        bool trusted;
    } cases[] = {
        {u"\\Device\\Disk1\\MONITOR.exe", true},
        {u"monitor.exe", true},
        {u"\\Device\\Disk1\\xmonitor.exe", false},
        {u"\\Device\\Disk1\\monitor.exe\\other.exe", false},
        {u"\\Device\\Disk1\\Tools\\Agent.exe", true},
        {u"\\Device\\Disk1\\MyTools\\agent.exe", false},
        {u"\\agent.exe", false},
        {u"\\Device\\bin\\svc.exe", true},
        {u"bin\\svc.exe", false},
        {u"\\device\\D.exe", true},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(platform::ToUtf8(c.image));
        const auto process = Start(c.image);
        const Tracked tracked(tracking, IdOf(*process));
        EXPECT_EQ(tracked.record->Flags, c.trusted ? PROCESS_TRUSTED : 0u);
    }
}

TEST_F(ProcessTest, TheLibraryDoesNotStartOnBadGrounds) {
    ASSERT_EQ(machine->UnloadDriver(u"zpklib"), STATUS_SUCCESS);
    platform::DriverImage unchecked = LibraryImage();
    unchecked.integrityChecked = false;
    EXPECT_EQ(machine->LoadDriver(unchecked), STATUS_ACCESS_DENIED);
    const std::u16string key = platform::ServiceKeyPath(u"zpklib");
    machine->SetRegistryString(key, u"TrustedImages", u"monitor.exe");
    EXPECT_EQ(machine->LoadDriver(LibraryImage()), STATUS_OBJECT_TYPE_MISMATCH);
    SetTrustedImages({u"monitor.exe"});
    EXPECT_EQ(machine->LoadDriver(LibraryImage()), STATUS_SUCCESS);
}

TEST_F(ProcessTest, AllocationFailuresAreReported) {
    const platform::PlannedFault fault = {.routine = "ExAllocatePoolWithTag"};
    const TrackingHandle tracking;
    EXPECT_EQ(WalkFaults(fault, [&] { return TrackingHandle(2).Status(); }), 1);
    EXPECT_EQ(WalkFaults(fault,
                         [&] {
                             std::uint64_t* block = tracking.NewBlock(1);
                             if (block == nullptr) return STATUS_NO_MEMORY;
                             ZPkPsReleaseContext(block);
                             return STATUS_SUCCESS;
                         }),
              1);
    // A process that is not known yet: whatever fails, nothing is left behind.
    EXPECT_GT(WalkFaults({.routine = "*"}, [&] { return Tracked(tracking, IdOf(*older)).status; }),
              1);
}

TEST_F(ProcessTest, AProcessThatStartedWithoutMemoryIsKnownLater) {
    const TrackingHandle tracking;
    platform::ObjectRef<platform::Process> process;
    {
        platform::FaultPlan plan(
            {.routine = "ExAllocatePoolWithTag", .tag = zpklib::kProcessTag, .andAllAfter = true});
        process = Start(u"\\late.exe");
        EXPECT_EQ(Tracked(tracking, IdOf(*process)).status, STATUS_INSUFFICIENT_RESOURCES);
    }
    EXPECT_EQ(Tracked(tracking, IdOf(*process)).Image(), u"\\late.exe");
}

TEST_F(ProcessTest, FailingStartsLeaveNothing) {
    ASSERT_EQ(machine->UnloadDriver(u"zpklib"), STATUS_SUCCESS);
    SetTrustedImages({u"monitor.exe"});
    for (const std::uint32_t tag : {zpklib::kTrustedTag, zpklib::kUpperCaseTag}) {
        platform::FaultPlan plan({.routine = "ExAllocatePoolWithTag", .tag = tag});
        EXPECT_EQ(machine->LoadDriver(LibraryImage()), STATUS_INSUFFICIENT_RESOURCES);
        EXPECT_TRUE(plan.Fired());
    }
    for (const ULONG tag : zpklib::kPoolTags) {
        EXPECT_EQ(platform::QueryPoolUsage(tag).blocks, 0u) << platform::TagText(tag);
    }
    EXPECT_EQ(machine->LoadDriver(LibraryImage()), STATUS_SUCCESS);
}

TEST_F(ProcessTest, ThreadsOfOneProcessAgreeOnOneContext) {
    const TrackingHandle tracking;
    constexpr int kTrackers = 4;
    constexpr int kRounds = 100;
    std::barrier step(kTrackers);
    std::atomic<int> attached{0};
    platform::ObjectRef<platform::Process> process;
    std::vector<std::thread> threads;
    for (int self = 0; self < kTrackers; ++self) {
        threads.emplace_back([&, self] {
            for (int round = 0; round < kRounds; ++round) {
                if (self == 0) process = Start();
                step.arrive_and_wait();
                const HANDLE id = IdOf(*process);
                std::uint64_t* block = tracking.NewBlock(1);
                PVOID existing = nullptr;
                const NTSTATUS status = ZPkPsSetContext(id, 1, block, &existing);
                if (status == STATUS_SUCCESS) attached.fetch_add(1);
                const Tracked tracked(tracking, id);
                EXPECT_EQ(tracked.block, status == STATUS_SUCCESS ? block : existing);
                if (existing != nullptr) ZPkPsReleaseContext(existing);
                ZPkPsReleaseContext(block);
                step.arrive_and_wait();
                if (self == 0) machine->ExitProcess(*process);
            }
        });
    }
    for (std::thread& thread : threads) {
        thread.join();
    }
    EXPECT_EQ(attached.load(), kRounds);
    EXPECT_EQ(TrackingHandle::cleanedCount.load(), kRounds * kTrackers);
}

TEST_F(ProcessTest, ARequestThatRacesTheEndOfAProcessLeavesNoRecord) {
    constexpr int kProcesses = 60;
    ASSERT_EQ(machine->UnloadDriver(u"zpklib"), STATUS_SUCCESS);
    std::vector<platform::ObjectRef<platform::Process>> processes;
    for (int i = 0; i < kProcesses; ++i) {
        processes.push_back(Start());
    }
    // Now they are older than the library, so that a request has to make the record.
    ASSERT_EQ(machine->LoadDriver(LibraryImage()), STATUS_SUCCESS);
    const TrackingHandle tracking;
    std::barrier step(2);
    std::thread asking([&] {
        for (const auto& process : processes) {
            step.arrive_and_wait();
            while (true) {
                const Tracked tracked(tracking, IdOf(*process));
                if (tracked.status == STATUS_SUCCESS) continue;
                EXPECT_EQ(tracked.status, STATUS_INVALID_CID);
                break;
            }
        }
    });
    for (const auto& process : processes) {
        step.arrive_and_wait();
        machine->ExitProcess(*process);
    }
    asking.join();
    for (const auto& process : processes) {
        EXPECT_EQ(Tracked(tracking, IdOf(*process)).status, STATUS_INVALID_CID);
    }
    // Each end looks at two of those that are remembered as ended.
    for (int i = 0; i < kProcesses; ++i) {
        machine->ExitProcess(*Start());
    }
    EXPECT_LE(platform::QueryPoolUsage(zpklib::kProcessTag).blocks, 8u);
}

}  // namespace
