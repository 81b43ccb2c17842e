// The trace: which events a controller gets by flag, level and filter, and their arguments.
#include "driver/driver_fixture.h"
#include "intercept/registry_callback.h"
#include "intercept/trace_filter.h"
#include "intercept/tracing.h"

#include <algorithm>
#include <mutex>

namespace driver_test {

namespace {

using namespace zpregflt;
using platform::TraceEvent;

constexpr ULONG kAllFlags =
    TRACE_DRIVER | TRACE_BUFFER | TRACE_OPERATION | TRACE_CONTROL | TRACE_CAPTURE;

class TraceTest : public DriverTest {
protected:
    void Enable(UCHAR level, ULONG flags) { controller_.Enable(level, flags); }
    /// The events whose message contains `text`; all are forgotten.
    std::vector<TraceEvent> Take(std::string_view text = "") {
        const std::scoped_lock guard(lock_);
        std::vector<TraceEvent> found;
        for (TraceEvent& event : std::exchange(events_, {})) {
            if (event.NarrowText(0).find(text) != std::string::npos)
                found.push_back(std::move(event));
        }
        return found;
    }
    /// The one event with that text, of that flag and level.
    TraceEvent TakeOne(std::string_view text, ULONG flag, UCHAR level) {
        const std::vector<TraceEvent> found = Take(text);
        EXPECT_EQ(found.size(), 1u) << text;
        if (found.empty()) return {};
        EXPECT_EQ(found.front().descriptor.Keyword, flag) << text;
        EXPECT_EQ(found.front().descriptor.Level, level) << text;
        return found.front();
    }
    /// A registry of processes, keys and traffic that traces at every flag.
    void Work() {
        const auto loan = TheClient().Lend();
        {
            const ThreadScope thread(Worker());
            const KeyHandle key = platform::MakeKey(platform::kTestKey);
            platform::SetValue(key, u"v", REG_BINARY, "12");
            platform::SetValue(key, u"v", REG_BINARY, "34");
            platform::QueryValue(key, u"v");
            NtFlushKey(key);
            NtDeleteKey(key);
        }
        TheClient().Flush();
        TheClient().Control(0x22F0FC);
    }

    /// Called as each event is written, on the thread that writes it.
    std::function<void()> onEvent_;

private:
    std::mutex lock_;
    std::vector<TraceEvent> events_;
    platform::TraceController controller_{kTraceProviderId, [this](const TraceEvent& event) {
                                              const std::scoped_lock guard(lock_);
                                              events_.push_back(event);
                                              if (onEvent_) onEvent_();
                                          }};
};

TEST_F(TraceTest, FlagsAndLevelsSelect) {
    SetParameter(u"Trace", u"Operations", 0);
    Start();
    for (const ULONG flags : {0x1u, 0x2u, 0x4u, 0x8u, 0x10u, 0x6u, kAllFlags}) {
        for (UCHAR level = TRACE_LEVEL_ERROR; level <= TRACE_LEVEL_VERBOSE; ++level) {
            Enable(level, flags);
            Work();
            const std::vector<TraceEvent> events = Take();
            for (const TraceEvent& event : events) {
                EXPECT_NE(event.descriptor.Keyword & flags, 0u) << event.NarrowText(0);
                EXPECT_LE(event.descriptor.Level, level) << event.NarrowText(0);
            }
            EXPECT_TRUE(!events.empty() || level != TRACE_LEVEL_VERBOSE || flags == TRACE_CAPTURE);
        }
    }
}

// --- The filter ----------------------------------------------------------------------------------

TEST_F(TraceTest, Filter) {
    constexpr std::uint32_t kId = 4000;
    // The process asked about is \Device\HarddiskVolume1\Program\worker.exe.
    const struct {
        std::uint32_t processId;  ///< 0: not set
        const char16_t* name;     ///< null: not set
        std::uint32_t operations;
        OperationMask mask;
        bool passes;
    } cases[] = {
        {0, nullptr, 0x17, 0x2, true},
        {0, nullptr, 0x17, 0x100, false},
        {0, nullptr, 0x17, 0x102, true},
        {0, nullptr, 0x17, 0, true},
        {0, nullptr, 0, 0x100, true},
        {kId, nullptr, 0, 0x2, true},
        {kId, nullptr, 0x1, 0x2, false},
        {kId + 4, nullptr, 0, 0, false},
        {0, u"WORKER.EXE", 0, 0x2, true},
        {0, u"Program\\worker.exe", 0, 0x2, true},
        {0, u"\\device\\harddiskvolume1\\program\\WORKER.exe", 0, 0x2, true},
        {0, u"orker.exe", 0, 0x2, false},
        {0, u"notworker.exe", 0, 0x2, false},
        {0, u"\\worker.exe", 0, 0x2, false},
        {0, u"x\\device\\harddiskvolume1\\program\\worker.exe", 0, 0x2, false},
        {0, u"worker.exe", 0x1, 0x2, false},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(testing::Message() << "case " << &c - cases);
        Boot({});
        SetParameter(u"Trace", u"Operations", c.operations);
        if (c.name != nullptr) {
            machine_->SetRegistryString(ParameterKey(u"Trace"), u"Process", c.name);
        }
        if (c.processId != 0) SetParameter(u"Trace", u"Process", c.processId);
        Start();
        auto process = machine_->StartProcess({.imagePath = kWorkerImage, .id = kId});
        const auto id = reinterpret_cast<HANDLE>(std::uintptr_t{kId});
        EXPECT_EQ(TraceFilterMatch(id, c.mask), c.passes);
        machine_->ExitProcess(*process);
        // Not known any more: passes the name, not the id.
        EXPECT_TRUE(c.name == nullptr || TraceFilterMatch(id, 0));
        process = {};
        Stop();
    }
}

// --- Arguments -----------------------------------------------------------------------------------

TEST_F(TraceTest, ArgumentsOfKeyContexts) {
    SetParameter(u"Trace", u"Operations", 0);
    Start();
    Enable(TRACE_LEVEL_INFORMATION, TRACE_OPERATION);
    {
        const ThreadScope thread(TheClient().Owner());
        const KeyHandle key = platform::MakeKey(platform::kTestKey);
        const TraceEvent trusted = TakeOne("trusted", TRACE_OPERATION, TRACE_LEVEL_INFORMATION);
        EXPECT_EQ(trusted.Number(1), TheClient().Owner().Id());
        EXPECT_EQ(trusted.Text(2), kClientImage);
    }
    const ThreadScope thread(Worker());
    KeyHandle key = platform::MakeKey(platform::kTestKey);
    std::vector<TraceEvent> events = Take();
    ASSERT_EQ(events.size(), 2u) << "the creation and the context";
    EXPECT_EQ(events[0].Number(1), Worker().Id());
    EXPECT_EQ(events[0].Text(3), platform::kTestKey);
    EXPECT_EQ(events[0].Number(4), Worker().Id());
    EXPECT_EQ(events[0].Number(6), KEY_ALL_ACCESS);
    EXPECT_EQ(events[0].Number(8), REG_OPENED_EXISTING_KEY);
    const auto context = reinterpret_cast<std::uintptr_t>(ContextOf(key));
    EXPECT_EQ(events[1].Number(3), context);
    EXPECT_EQ(events[1].Number(2), events[0].Number(2)) << "the key object";
    key.Close();
    const TraceEvent released = TakeOne("released", TRACE_OPERATION, TRACE_LEVEL_INFORMATION);
    EXPECT_EQ(released.Number(1), Worker().Id());
    EXPECT_EQ(released.Number(2), events[0].Number(2));
    EXPECT_EQ(released.Number(3), context);
    {
        const FaultPlan plan({.routine = "CmSetCallbackObjectContext", .status = STATUS_NO_MEMORY});
        key = platform::OpenKeyOf(platform::kTestKey).key;
    }
    const TraceEvent failed = TakeOne("context not set", TRACE_OPERATION, TRACE_LEVEL_WARNING);
    EXPECT_EQ(failed.Number(2), static_cast<ULONG>(STATUS_NO_MEMORY));
}

TEST_F(TraceTest, ArgumentsOfTheGates) {
    SetParameter(u"Trace", u"Operations", 0);
    Start();
    const ThreadScope thread(Worker());
    const KeyHandle key = platform::MakeKey(platform::kTestKey);
    Enable(TRACE_LEVEL_VERBOSE, TRACE_DRIVER);
    NtFlushKey(key);
    const TraceEvent unwatched = TakeOne("not watched", TRACE_DRIVER, TRACE_LEVEL_VERBOSE);
    EXPECT_EQ(unwatched.Number(1), Worker().Id());
    EXPECT_EQ(unwatched.Number(3), RegNtPostFlushKey);
    EXPECT_EQ(unwatched.NarrowText(4), "RegNtPostFlushKey");
    EXPECT_EQ(unwatched.Number(5), 0x17u);

    EXPECT_EQ(platform::DeleteValue(key, u"missing"), STATUS_OBJECT_NAME_NOT_FOUND);
    const TraceEvent failed = TakeOne("failed", TRACE_DRIVER, TRACE_LEVEL_VERBOSE);
    EXPECT_EQ(failed.Number(1), Worker().Id());
    EXPECT_EQ(failed.Number(2), RegNtPostDeleteValueKey);
    EXPECT_EQ(failed.NarrowText(3), "RegNtPostDeleteValueKey");
    EXPECT_EQ(failed.Number(4), static_cast<ULONG>(STATUS_OBJECT_NAME_NOT_FOUND));

    REG_POST_OPERATION_INFORMATION post = {};
    post.Object = &post;
    RegistryCallback(&State, reinterpret_cast<PVOID>(ULONG_PTR{RegNtPostFlushKey}), &post);
    const TraceEvent missing = TakeOne("without key context", TRACE_DRIVER, TRACE_LEVEL_VERBOSE);
    EXPECT_EQ(missing.Number(1), Worker().Id());
    EXPECT_EQ(missing.Number(2), reinterpret_cast<std::uintptr_t>(&post));
    EXPECT_EQ(missing.Number(3), RegNtPostFlushKey);
    EXPECT_EQ(missing.NarrowText(4), "RegNtPostFlushKey");
}

TEST_F(TraceTest, ArgumentsOfRequests) {
    Start();
    Enable(TRACE_LEVEL_INFORMATION, TRACE_CONTROL);
    TheClient().SetNumber(IOCTL_ZPRF_SET_LOGGED_OPERATIONS, 0x3F);
    const TraceEvent number = TakeOne("", TRACE_CONTROL, TRACE_LEVEL_INFORMATION);
    EXPECT_EQ(number.Number(2), 0x17u) << "the old value";
    EXPECT_EQ(number.Number(3), 0x3Fu) << "the new value";
    TheClient().SetNumber(IOCTL_ZPRF_SET_REPORT_ORIGINAL, 1);
    const TraceEvent flag = TakeOne("", TRACE_CONTROL, TRACE_LEVEL_INFORMATION);
    EXPECT_EQ(flag.NarrowText(1) + flag.NarrowText(2), "NoYes");
    // A narrow name at 10 and, or not, an identifier at 12.
    for (const bool identified : {false, true}) {
        char input[] =
            "\0\0\012\0\0\0\014\0\0\0x\0"
            "0123456789ABCDEF";
        if (!identified) input[6] = 0;
        EXPECT_EQ(TheClient().Control(IOCTL_ZPRF_EXEMPT_ADD, input, sizeof(input)), STATUS_SUCCESS);
        const TraceEvent exempted = TakeOne("", TRACE_CONTROL, TRACE_LEVEL_INFORMATION);
        EXPECT_EQ(exempted.NarrowText(1), "x");
        EXPECT_EQ(exempted.Text(2), u"NULL");
        EXPECT_EQ(exempted.NarrowText(3), identified ? "0123456789ABCDEF" : "NULL");
        EXPECT_EQ(exempted.Text(4), u"NULL");
        EXPECT_EQ(exempted.NarrowText(5), "added");
    }
}

/// A buffer request that is turned away is still out when its outcome is traced; one that is parked
/// has no outcome yet.
TEST_F(TraceTest, OutcomeComesBeforeCompletion) {
    Start();
    Enable(TRACE_LEVEL_VERBOSE, TRACE_CONTROL);
    const struct {
        const char* failing;
        std::size_t size;
        NTSTATUS status;
    } cases[] = {
        {"WdfRequestForwardToIoQueue", kMinimumBufferSize, STATUS_DEVICE_BUSY},
        {"", kMinimumBufferSize - 1, STATUS_INVALID_PARAMETER},
        {"", kMinimumBufferSize, STATUS_PENDING},
    };
    for (const auto& c : cases) {
        Loan loan(TheClient(), c.size);
        bool wasOut = false;
        onEvent_ = [&] { wasOut = loan.IsOut(); };
        {
            const FaultPlan plan({.routine = c.failing, .status = c.status});
            EXPECT_EQ(loan.Send(), c.status);
        }
        onEvent_ = {};
        if (c.status == STATUS_PENDING) {
            EXPECT_TRUE(Take().empty());
            continue;
        }
        const TraceEvent outcome = TakeOne("status", TRACE_CONTROL, TRACE_LEVEL_VERBOSE);
        EXPECT_TRUE(wasOut) << c.failing;
        EXPECT_EQ(outcome.Number(2), IOCTL_ZPRF_GET_BUFFER);
        EXPECT_EQ(outcome.Number(3), static_cast<ULONG>(c.status));
    }
}

TEST_F(TraceTest, OperationsCarryThePath) {
    SetParameter(u"Trace", u"Operations", 0);
    Start();
    const ThreadScope thread(Worker());
    const KeyHandle key = platform::MakeKey(platform::kTestKey);
    Enable(TRACE_LEVEL_INFORMATION, TRACE_OPERATION);
    platform::SetValue(key, u"Value", REG_BINARY, "1234");
    const TraceEvent set = TakeOne("SetValueKey %Z by", TRACE_OPERATION, TRACE_LEVEL_INFORMATION);
    EXPECT_EQ(set.Number(1), Worker().Id());
    EXPECT_EQ(set.Text(3), u"\\REGISTRY\\MACHINE\\Test");
    EXPECT_EQ(set.Text(4), u"Value");
    EXPECT_EQ(set.Number(7), static_cast<ULONG>(REG_BINARY));
    EXPECT_EQ(set.Number(8), 4u);
    NtDeleteKey(key);
    const TraceEvent deleted = TakeOne("DeleteKey,", TRACE_OPERATION, TRACE_LEVEL_INFORMATION);
    EXPECT_TRUE(platform::EqualIgnoringCase(deleted.Text(3), platform::kTestKey));
    EXPECT_EQ(deleted.Number(4), 0u);
    // A path that cannot be had: the trace is replaced by one that says so.
    const KeyHandle second = platform::MakeKey(platform::kTestKey);
    Take();
    {
        const FaultPlan plan(
            {.routine = "ExAllocatePoolWithTag", .tag = MakeTag("ZRto"), .andAllAfter = true});
        platform::SetValue(second, u"Value", REG_BINARY, "1234");
    }
    const auto events = Take();
    ASSERT_FALSE(events.empty());
    EXPECT_NE(events.front().NarrowText(0).find("path unavailable"), std::string::npos);
    EXPECT_EQ(events.front().Text(1), u"NULL");
    EXPECT_EQ(events.front().Number(3), static_cast<ULONG>(STATUS_INSUFFICIENT_RESOURCES));
}

/// One process's traces only, and of the operations chosen.
TEST_F(TraceTest, FilterNarrowsOperationTraces) {
    SetParameter(u"Trace", u"Process", 4000);
    SetParameter(u"Trace", u"Operations", operation::kOpenKeyEx);
    Start();
    const auto chosen = machine_->StartProcess({.imagePath = u"\\chosen.exe", .id = 4000});
    Enable(TRACE_LEVEL_VERBOSE, TRACE_OPERATION | TRACE_DRIVER);
    Take();
    for (platform::Process* process : {&Worker(), chosen.get()}) {
        const ThreadScope thread(*process);
        const KeyHandle made = platform::MakeKey(platform::kTestKey);
        NtFlushKey(made);
        const KeyHandle opened = platform::OpenKeyOf(platform::kTestKey).key;
        const std::vector<TraceEvent> events = Take();
        if (process == &Worker()) {
            EXPECT_TRUE(events.empty());
        } else {
            ASSERT_EQ(events.size(), 2u);
            EXPECT_NE(events[0].NarrowText(0).find("OpenKeyEx"), std::string::npos);
            EXPECT_NE(events[1].NarrowText(0).find("attached"), std::string::npos);
        }
    }
    machine_->ExitProcess(*chosen);
}

TEST_F(TraceTest, DriverWorksWithoutAProvider) {
    ASSERT_EQ(machine_->LoadDriver(::LibraryImage()), STATUS_SUCCESS);
    {
        const FaultPlan plan({.routine = "EtwRegister"});
        ASSERT_EQ(machine_->LoadDriver(MonitorImage()), STATUS_SUCCESS);
        ASSERT_TRUE(plan.Fired());
    }
    Enable(TRACE_LEVEL_VERBOSE, kAllFlags);
    EXPECT_EQ(machine_->UnloadDriver(u"zpregflt"), STATUS_SUCCESS);
    EXPECT_TRUE(Take().empty());
}

}  // namespace

}  // namespace driver_test
