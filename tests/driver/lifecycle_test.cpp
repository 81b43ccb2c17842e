// Loading and unloading: every step that can fail, what is given back, and what may be going on
// meanwhile.
#include "driver/driver_fixture.h"

#include <thread>

namespace driver_test {

namespace {

using platform::MakeKey;

constexpr zpregflt::OperationMask kRecorded = operation::kCreateKeyEx | operation::kFlushKey;

class LifecycleTest : public DriverTest {
protected:
    NTSTATUS Load() { return machine_->LoadDriver(MonitorImage()); }
    NTSTATUS Unload() { return machine_->UnloadDriver(u"zpregflt"); }

    bool DeviceOpens() {
        const ThreadScope system(machine_->SystemProcess());
        const HANDLE file = OpenFile(kDeviceName, GENERIC_READ, FILE_OPEN, 0);
        if (file != nullptr) NtClose(file);
        return file != nullptr;
    }
    void ExpectNothingHeld(const std::string& when) {
        for (const std::uint32_t tag : MonitorImage().poolTags) {
            EXPECT_EQ(platform::QueryPoolUsage(tag).blocks, 0u)
                << platform::TagText(tag) << " " << when;
        }
        EXPECT_FALSE(DeviceOpens()) << when;
        EXPECT_EQ(platform::RegisteredProviderCount(), 0u) << when;
    }
    /// Makes a key, works on it and deletes it, as a monitored process.
    void Traffic() {
        const ThreadScope thread(Worker());
        const KeyHandle key = MakeKey(kTestKey);
        platform::SetValue(key, u"v", REG_BINARY, "1");
        platform::SetValue(key, u"v", REG_BINARY, "2");
        NtFlushKey(key);
        NtDeleteKey(key);
    }
};

// --- Starting ------------------------------------------------------------------------------------

TEST_F(LifecycleTest, PoolTypeFollowsTheSystem) {
    const struct {
        std::uint32_t major, minor;
        bool versionFails;
        POOL_TYPE type;
    } cases[] = {{5, 2, false, NonPagedPool},
                 {6, 1, false, NonPagedPool},
                 {6, 2, false, NonPagedPoolNx},
                 {10, 0, false, NonPagedPoolNx},
                 {10, 0, true, NonPagedPool}};
    for (const auto& c : cases) {
        Boot({.majorVersion = c.major, .minorVersion = c.minor});
        ASSERT_EQ(machine_->LoadDriver(::LibraryImage()), STATUS_SUCCESS);
        {
            std::optional<FaultPlan> plan;
            if (c.versionFails) plan.emplace(platform::PlannedFault{.routine = "RtlGetVersion"});
            ASSERT_EQ(Load(), STATUS_SUCCESS);
        }
        EXPECT_EQ(zpregflt::NonPagedPoolType, c.type) << c.major << "." << c.minor;
        EXPECT_EQ(Pool.descriptors.L.Type, c.type) << c.major << "." << c.minor;
        Stop();
    }
}

/// Any single call that fails either stops the start with its status, which then leaves nothing, or
/// is survived.
TEST_F(LifecycleTest, AnyCallOfStartUpCanFail) {
    SetParameter(u"Report", u"Override", 1);
    machine_->SetRegistryString(ParameterKey(u"Trace"), u"Process", u"a.exe");
    ASSERT_EQ(machine_->LoadDriver(::LibraryImage()), STATUS_SUCCESS);
    constexpr NTSTATUS kPlanned = STATUS_DEVICE_BUSY;
    constexpr NTSTATUS kNoMemory = STATUS_INSUFFICIENT_RESOURCES;  // where null is returned
    bool fired = true;
    int refused = 0;
    for (std::uint64_t nth = 1; fired; ++nth) {
        NTSTATUS status = STATUS_SUCCESS;
        {
            const FaultPlan plan(
                {.routine = "*", .nth = nth, .thisThreadOnly = true, .status = kPlanned});
            status = Load();
            fired = plan.Fired();
        }
        if (NT_SUCCESS(status)) {
            EXPECT_TRUE(DeviceOpens()) << nth;
            EXPECT_EQ(Unload(), STATUS_SUCCESS) << nth;
        } else {
            EXPECT_TRUE(status == kPlanned || status == kNoMemory) << nth;
            ++refused;
        }
        ExpectNothingHeld("call " + std::to_string(nth));
    }
    EXPECT_GE(refused, 13) << "binding, registrations, device, link, queues and callback can fail";
}

// --- Stopping ------------------------------------------------------------------------------------

TEST_F(LifecycleTest, HundredTimesWithTrafficBetween) {
    SetParameter(u"Report", u"Operations", kRecorded);
    for (int round = 0; round < 100; ++round) {
        Start();
        for (ULONG row = 0; row < zpregflt::kOperationClassCount; ++row)
            ASSERT_EQ(CountersOf(row), (Counters{0, 0, 0, 0})) << row;
        auto loan = TheClient().Lend();
        Traffic();
        TheClient().Flush();
        ASSERT_EQ(loan->Wait(), STATUS_SUCCESS);
        ASSERT_FALSE(loan->Records().empty());
        loan.reset();
        Stop();
        ExpectNothingHeld("round " + std::to_string(round));
    }
}

TEST_F(LifecycleTest, KeysStayOpen) {
    StartRecording(kRecorded);
    {
        const ThreadScope thread(Worker());
        const KeyHandle created = MakeKey(kTestKey);
        const KeyHandle opened = platform::OpenKeyOf(kTestKey).key;
        platform::SetValue(created, u"v", REG_BINARY, "1");
        client_.reset();
        EXPECT_EQ(Unload(), STATUS_SUCCESS);
        ExpectNothingHeld("keys being open");
        EXPECT_EQ(NtFlushKey(created), STATUS_SUCCESS);
        // Keys from before the driver was loaded are not followed.
        EXPECT_EQ(Load(), STATUS_SUCCESS);
        EXPECT_EQ(NtFlushKey(created), STATUS_SUCCESS);
        EXPECT_EQ(CountersOf(RegNtPostFlushKey), (Counters{1, 0, 0, 0}));
        EXPECT_EQ(NtFlushKey(opened), STATUS_SUCCESS);
        EXPECT_EQ(CountersOf(RegNtCallbackObjectContextCleanup), (Counters{0, 0, 0, 0}));
    }
    Stop();
}

TEST_F(LifecycleTest, ParkedRequestsKeepTheDriver) {
    StartRecording(kRecorded);
    ASSERT_EQ(TheClient().SetDumpFile(DumpPath()), STATUS_SUCCESS);
    auto first = TheClient().Lend();
    auto second = TheClient().Lend();
    Traffic();
    EXPECT_EQ(Unload(), STATUS_DEVICE_BUSY);
    Traffic();
    TheClient().Close();
    platform::DrainSystemWork();
    EXPECT_FALSE(machine_->IsLoaded(u"zpregflt"));
    EXPECT_EQ(first->Wait(), STATUS_CANCELLED);
    EXPECT_EQ(second->Wait(), STATUS_CANCELLED);
    ExpectNothingHeld("the device being closed");
}

TEST_F(LifecycleTest, ClientThatEndsWithBuffersLent) {
    StartRecording(kRecorded);
    {
        const auto first = TheClient().Lend();
        const auto second = TheClient().Lend();
        Traffic();
        machine_->ExitProcess(*clientProcess_);
        EXPECT_FALSE(first->IsOut() || second->IsOut());
    }
    Traffic();
    const auto next = machine_->StartProcess({.imagePath = kClientImage});
    {
        Client client(*next);
        ASSERT_EQ(client.Open(), STATUS_SUCCESS);
        const auto loan = client.Lend();
        client.Flush();
        EXPECT_EQ(loan->Wait(), STATUS_SUCCESS);
        EXPECT_FALSE(loan->Records().empty()) << "what the boot buffers have kept";
    }
    machine_->ExitProcess(*next);
    machine_->ExitProcess(*worker_);
    EXPECT_EQ(Unload(), STATUS_SUCCESS);
    ExpectNothingHeld("the client being gone");
}

/// The image of a withdrawn buffer is still on its way to the file when the driver unloads.
TEST_F(LifecycleTest, UnloadWaitsForTheDumpFile) {
    SetParameter(u"Report", u"Operations", kRecorded);
    for (int round = 0; round < 50; ++round) {
        StartWithoutBootBuffers();
        ASSERT_EQ(TheClient().SetDumpFile(DumpPath()), STATUS_SUCCESS);
        {
            const auto loan = TheClient().Lend();
            Traffic();
        }
        Stop();
        const auto images = ReadDump(DumpPath());
        ASSERT_EQ(images.size(), 1u);
        EXPECT_EQ(ReadChain(images[0]).size(), 5u) << "creation, two values, flush and deletion";
    }
}

/// Keys are opened, worked on and closed on other threads while the driver comes and goes.
TEST_F(LifecycleTest, UnloadUnderTraffic) {
    SetParameter(u"Report", u"Operations", kRecorded);
    ASSERT_EQ(machine_->LoadDriver(::LibraryImage()), STATUS_SUCCESS);
    worker_ = machine_->StartProcess({.imagePath = kWorkerImage});
    std::atomic<bool> stop{false};
    std::atomic<int> passes{0};
    std::vector<std::thread> threads;
    for (int i = 0; i < 3; ++i) {
        threads.emplace_back([&, i] {
            const ThreadScope thread(Worker());
            std::u16string path(kTestKey);
            path += static_cast<char16_t>(u'0' + i);
            while (!stop) {
                const KeyHandle key = MakeKey(path);
                const KeyHandle again = platform::OpenKeyOf(path).key;
                platform::SetValue(again, u"v", REG_BINARY, passes % 2 == 0 ? "1" : "2");
                NtFlushKey(key);
                ++passes;
                passes.notify_all();
            }
        });
    }
    for (int round = 0; round < 30; ++round) {
        ASSERT_EQ(Load(), STATUS_SUCCESS);
        // Some keys go through the driver's hands, and some are open when it goes.
        const int before = passes;
        while (passes < before + 10)
            passes.wait(passes.load());
        ASSERT_EQ(Unload(), STATUS_SUCCESS);
    }
    stop = true;
    for (std::thread& thread : threads)
        thread.join();
    ExpectNothingHeld("traffic going on");
}

}  // namespace

}  // namespace driver_test
