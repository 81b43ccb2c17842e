#include "zpregmon/replay/monitored_replay.h"

#include "channel/buffer_format.h"
#include "client/dump_file.h"
#include "driver/control_codes.h"
#include "kernel/registry_fixture.h"
#include "zpregmon/registry_model.h"
#include "zpregmon/replay/process_start.h"
#include "zpregmon/samples.h"
#include "zpregmon/temporary_file.h"

#include <gtest/gtest.h>

#include <map>
#include <memory>
#include <variant>

namespace zpregmon {
namespace {

/// What is kept of an event when its buffer is gone.
struct SeenEvent {
    zpregflt::RecordType type;
    std::uint32_t processId;
    std::uint64_t time;
    std::u16string key;
    std::u16string valueName;
    ModelValue value;
    std::optional<std::vector<std::byte>> previous;
    bool operator==(const SeenEvent&) const = default;
};

std::vector<std::byte> Copy(const CapturedData& data) {
    EXPECT_EQ(data.captured.size(), data.size);
    return {data.captured.begin(), data.captured.end()};
}

SeenEvent Keep(const Event& event) {
    SeenEvent seen{event.Type(),
                   event.ProcessId(),
                   event.SystemTime(),
                   std::u16string(event.Key().value_or(u"no name")),
                   {},
                   {},
                   {}};
    if (const auto set = event.As<ValueSet>()) {
        seen.valueName = set->value.Copy();
        seen.value = {set->type, Copy(set->data)};
        if (set->previous) seen.previous = Copy(*set->previous);
    } else if (const auto deleted = event.As<ValueDeleted>()) {
        seen.valueName = deleted->value.Copy();
    }
    return seen;
}

struct Replayed {
    MonitoredReplayResult result;
    std::vector<SeenEvent> events;
};

/// The verifier is on: a leak or a broken rule ends the program.
Replayed Replay(const Workload& workload, const MonitoredReplayOptions& options) {
    Replayed replayed;
    ReplayControl control;
    replayed.result = RunMonitoredReplay(
        workload, options, [&](const Event& event) { replayed.events.push_back(Keep(event)); },
        control);
    return replayed;
}

void ExpectNothingLost(const MonitoredReplayResult& result) {
    EXPECT_EQ(result.driver.reservationsFailed, 0U);
    EXPECT_EQ(result.damagedBuffers, 0U);
    EXPECT_EQ(result.session.buffersLost, 0U);
    EXPECT_EQ(result.session.reservations, result.driver.reservations);
    EXPECT_EQ(result.events, result.driver.recordsWritten);
}

/// Real traffic, with every answer checked. The driver tells exactly which keys were created and
/// deleted and which values were changed or deleted, and what they held before.
class SampleTest : public testing::TestWithParam<const char*> {};

void ExpectSame(const ExpectedEvent& expected, const SeenEvent& seen, const RegistryModel& model) {
    EXPECT_EQ(seen.type, expected.type);
    EXPECT_EQ(seen.processId, expected.pid);
    EXPECT_EQ(model.RealPath(seen.key), expected.key);
    EXPECT_EQ(seen.valueName, expected.valueName);
    EXPECT_EQ(seen.value, expected.value);
    EXPECT_EQ(seen.previous.has_value(), expected.previous.has_value());
    if (seen.previous && expected.previous) {
        EXPECT_EQ(*seen.previous, expected.previous->data);
    }
}

TEST_P(SampleTest, LeavesTheEventsThatItMust) {
    const Workload workload = Workload::Read(GetParam());
    MonitoredReplayOptions options;
    options.check = true;
    options.operations = 0x3FFFFF;
    options.reportOriginal = true;
    auto [result, events] = Replay(workload, options);
    ExpectNothingLost(result);
    EXPECT_GT(result.answers.compared, 6000U);
    EXPECT_EQ(result.answers.disagreements, 0U)
        << (result.answers.first.empty() ? "" : result.answers.first.front());
    EXPECT_EQ(result.replay.check.compared, result.replay.operations);
    for (const Disagreement& disagreement : result.replay.check.first) {
        ADD_FAILURE() << "line " << disagreement.line << ": " << disagreement.what;
    }

    std::erase_if(events, [](const SeenEvent& event) {
        return event.type != zpregflt::RecordType::kKeyCreated &&
               event.type != zpregflt::RecordType::kKeyDeleted &&
               event.type != zpregflt::RecordType::kValueSet &&
               event.type != zpregflt::RecordType::kValueDeleted;
    });
    RegistryModel model;
    auto seen = events.begin();
    for (const Record& record : workload.Records()) {
        const std::optional<ExpectedEvent> expected = model.Apply(record);
        if (expected) {
            SCOPED_TRACE("line " + std::to_string(record.line));
            ASSERT_NE(seen, events.end()) << "not recorded";
            ExpectSame(*expected, *seen++, model);
            ASSERT_FALSE(testing::Test::HasFailure());
        }
    }
    EXPECT_EQ(seen, events.end()) << "nothing of that kind happened";
    EXPECT_GT(events.size(), 10000U);
}

/// What the registry holds, without the driver in the machine.
std::optional<ModelValue> Query(const std::u16string& path, const Record& record) {
    // Real paths lead through no link; a link itself is asked for its own values.
    const platform::Opened opened =
        platform::OpenKeyOf(path, {.attributes = OBJ_CASE_INSENSITIVE | OBJ_OPENLINK});
    EXPECT_EQ(opened.status, STATUS_SUCCESS);
    UNICODE_STRING name = platform::Describe(record.name);
    alignas(8) std::byte buffer[64 * 1024];
    ULONG length = 0;
    if (NtQueryValueKey(opened.key, &name, KeyValuePartialInformation, buffer, sizeof(buffer),
                        &length) != STATUS_SUCCESS) {
        return std::nullopt;
    }
    const auto& value = *reinterpret_cast<const KEY_VALUE_PARTIAL_INFORMATION*>(buffer);
    const auto* const data = reinterpret_cast<const std::byte*>(value.Data);
    return ModelValue{value.Type, {data, data + value.DataLength}};
}

TEST_P(SampleTest, ChangesWhatTheRegistryHeld) {
    const Workload workload = Workload::Read(GetParam());
    platform::Machine machine;
    for (const std::u16string_view key : workload.InitialKeys()) {
        machine.SetRegistryDword(key, u"made", 1);
    }
    RegistryModel model;
    HiveFiles hives;
    RegistryCaller caller(hives);
    std::map<std::uint32_t, std::unique_ptr<ReplayProcess>> processes;
    RecordedThread thread;
    std::uint64_t compared = 0;
    for (const Record& record : workload.Records()) {
        if (record.op == Op::kProcessStart) {
            thread.Leave();
            processes[record.pid] = StartRecordedProcess(machine, workload, record);
        } else if (record.op == Op::kProcessExit) {
            thread.Leave();
            machine.ExitProcess(processes.at(record.pid)->Process());
            processes.erase(record.pid);
        } else if (record.op == Op::kDuplicate) {
            RegistryCaller::Duplicate(record, *processes.at(record.fromPid),
                                      *processes.at(record.toPid));
        } else if (IsCall(record.op)) {
            ReplayProcess& process = *processes.at(record.pid);
            thread.Enter(process, record.tid);
            if (record.op == Op::kSetValue && record.status == 0) {
                const ModelValue* const expected = model.ValueOf(record);
                const std::optional<ModelValue> held = Query(model.KeyOf(record), record);
                ASSERT_EQ(held.has_value(), expected != nullptr) << "line " << record.line;
                ASSERT_TRUE(!held || *held == *expected) << "line " << record.line;
                ++compared;
            }
            caller.Call(record, process);
        }
        model.Apply(record);
    }
    thread.Leave();
    for (const auto& [pid, process] : processes) {
        machine.ExitProcess(process->Process());
    }
    EXPECT_GT(compared, 15000U);
}

const char* const kSamples[] = {
    kSample,
#if !defined(__SANITIZE_THREAD__)
    // A replay in order has one thread; what differs in these is traffic.
    kImportSample,
    kParallelSample,
#endif
};

INSTANTIATE_TEST_SUITE_P(All, SampleTest, testing::ValuesIn(kSamples), [](const auto& sample) {
    std::string name = sample.param;
    name = name.substr(name.find('/') + 1);
    name = name.substr(0, name.find('.'));
    std::erase(name, '-');
    return name;
});

TEST(Replay, InParallelLosesNothing) {
    const Workload workload = Workload::Read(kSample);
    MonitoredReplayOptions options;
    options.parallel = true;
    options.operations = 0x3FFFFF;
    const auto [result, events] = Replay(workload, options);
    ExpectNothingLost(result);
    EXPECT_EQ(result.replay.processes, 17U);
    EXPECT_GT(events.size(), 9000U);
}

/// The driver has fewer buffers than the events need: it is the replay that waits.
TEST(Replay, WaitsForASlowClient) {
    const Workload workload = Workload::Read(kSample);
    MonitoredReplayOptions options;
    options.operations = 0x3FFFFF;
    options.session = {.buffers = 4, .bufferSize = 256 * 1024};
    const auto [result, events] = Replay(workload, options);
    ExpectNothingLost(result);
    EXPECT_GT(result.session.buffersDelivered, options.session.buffers);
}

TEST(Replay, ShutdownDumpsWhatTheClientHasNotSeenYet) {
    const TemporaryFile dump;
    const Workload workload = Workload::Read(kSample);
    MonitoredReplayOptions options;
    options.operations = zpregflt::operation::kCreateKeyEx;
    options.dumpFile = dump.Path();
    const auto [result, events] = Replay(workload, options);
    ExpectNothingLost(result);

    const std::unique_ptr<std::FILE, int (*)(std::FILE*)> file(
        std::fopen(dump.Path().c_str(), "rb"), std::fclose);
    ASSERT_TRUE(file);
    DumpFileReader reader(file.get());
    std::vector<SeenEvent> dumped;
    for (Event event; reader.Next(event);) {
        dumped.push_back(Keep(event));
    }
    ASSERT_FALSE(reader.Error()) << reader.Error()->what;
    ASSERT_FALSE(dumped.empty());
    ASSERT_LT(dumped.size(), events.size());
    EXPECT_TRUE(std::equal(dumped.begin(), dumped.end(),
                           events.end() - static_cast<std::ptrdiff_t>(dumped.size())))
        << "the last events, as the client then got them";
}

TEST(Replay, EndsEarlyWhenItIsStopped) {
    const Workload workload = Workload::Read(kSample);
    for (const bool parallel : {false, true}) {
        MonitoredReplayOptions options;
        options.parallel = parallel;
        options.operations = zpregflt::operation::kCreateKeyEx;
        // One buffer is delivered before the end: that is when it is stopped.
        options.session = {.buffers = 4, .bufferSize = zpregflt::kMinimumBufferSize};
        ReplayControl control;
        const auto result = RunMonitoredReplay(
            workload, options, [&](const Event&) { control.stop = true; }, control);
        EXPECT_LT(result.replay.operations, workload.Records().size() * 9 / 10);
        ExpectNothingLost(result);
    }
}

std::string CreateKey(int pid, int handle, const std::string& name) {
    return R"({"op":"create-key","pid":)" + std::to_string(pid) + R"(,"tid":)" +
           std::to_string(pid + 4) + R"(,"root":0,"name":)" + name +
           R"(,"access":983103,"options":0,"attributes":192,"status":"00000000","handle":)" +
           std::to_string(handle) + R"(,"class":"","disposition":1})" + "\n";
}

std::string Call(const std::string& op, int pid, int handle, const std::string& rest) {
    return R"({"op":")" + op + R"(","pid":)" + std::to_string(pid) + R"(,"tid":)" +
           std::to_string(pid + 4) + R"(,"handle":)" + std::to_string(handle) + "," + rest + "}\n";
}

std::string Duplicate(int pid, int from, int handle, int to, int newHandle,
                      const std::string& rest) {
    return Call("duplicate", pid, handle,
                R"("from_pid":)" + std::to_string(from) + R"(,"to_pid":)" + std::to_string(to) +
                    R"(,"new_handle":)" + std::to_string(newHandle) +
                    R"(,"access":0,"attributes":0,"options":2,"status":"00000000")" + rest);
}

/// Handles that go from one process to another are usable there, in both modes. The second process
/// uses what the first one made; a third gets it by inheritance.
TEST(Replay, PassesHandlesOn) {
    const std::string value = R"("name":"v","type":4,"data":"01000000","status":"00000000")";
    const std::string answer =
        R"("name":"v","status":"00000000","type":4,"size":4,"got":4,"crc":"99f8b879")";
    const TemporaryFile file(WorkloadHeader() + Start(32) + Start(40, 32) +
                             CreateKey(32, 4, R"("\\Registry\\Machine\\Passed")") +
                             Call("set-value", 32, 4, value) + Duplicate(32, 32, 4, 40, 8, "") +
                             Call("query-value", 40, 8, answer) +
                             Call("close", 32, 4, R"("status":"00000000")") + Start(48, 40) +
                             Duplicate(48, 40, 8, 48, 8, R"(,"inherited":true)") + Exit(40) +
                             Call("query-value", 48, 8, answer) + Exit(48) + Exit(32));
    const Workload workload = Workload::Read(file.Path());

    MonitoredReplayOptions options;
    options.check = true;
    options.operations = 0x3FFFFF;
    const auto inOrder = Replay(workload, options);
    EXPECT_EQ(inOrder.result.replay.operations, 7U);
    for (const Disagreement& disagreement : inOrder.result.replay.check.first) {
        ADD_FAILURE() << "line " << disagreement.line << ": " << disagreement.what;
    }
    EXPECT_EQ(inOrder.result.replay.check.disagreements, 0U);

    options.check = false;
    options.parallel = true;
    for (int round = 0; round < 20; ++round) {
        const auto parallel = Replay(workload, options);
        EXPECT_EQ(parallel.result.replay.operations, 7U);
        EXPECT_EQ(parallel.result.eventsByType, inOrder.result.eventsByType);
    }
}

/// A hive that is saved can be loaded, under the name that the recorded program gave its file; one
/// that the recording does not show being made is empty.
TEST(Replay, LoadsAndSavesHivesAndChangesSecurity) {
    const std::string done = R"("status":"00000000")";
    const auto mounted = [](const std::string& op, const std::string& rest) {
        return R"({"op":")" + op +
               R"(","pid":32,"tid":36,"root":12,"name":"Loaded",)"
               R"("attributes":64,)" +
               rest + "}\n";
    };
    const std::string openLoaded = mounted("open-key", done + R"(,"access":131097,"handle":8)");
    const std::string closeLoaded = Call("close", 32, 8, done);
    const TemporaryFile file(
        WorkloadHeader() + Start(32) + CreateKey(32, 4, R"("\\Registry\\Machine\\Saved")") +
        Call("set-value", 32, 4, R"("name":"v","type":4,"data":"01000000",)" + done) +
        R"({"op":"open-key","pid":32,"tid":36,"root":0,"name":"\\Registry\\Machine",)"
        R"("attributes":64,"access":131097,"handle":12,"status":"00000000"})"
        "\n" +
        Call("save-key", 32, 4, R"("file":"C:\\hive",)" + done) +
        mounted("load-key", R"("file":"c:\\HIVE",)" + done) + openLoaded +
        Call("query-value", 32, 8,
             R"("name":"v","type":4,"size":4,"got":4,"crc":"99f8b879",)" + done) +
        closeLoaded + mounted("unload-key", done) +
        mounted("load-key", R"("file":"C:\\other",)" + done) + openLoaded +
        Call("query-value", 32, 8, R"("name":"v","status":"c0000034")") + closeLoaded +
        mounted("unload-key", done) +
        // A list that lets everyone do everything.
        Call("set-security", 32, 4,
             R"("info":4,"sd":"010004800000000000000000000000001400000002001c0001000000)"
             R"(000014003f000f00010100000000000100000000",)" +
                 done) +
        Call("query-security", 32, 4, R"("info":4,"size":48,)" + done) +
        Call("query-security", 32, 4, R"("info":4,"size":48,"status":"c0000023")") +
        Call("close", 32, 4, done) + Exit(32));
    const Workload workload = Workload::Read(file.Path());

    MonitoredReplayOptions options;
    options.check = true;
    options.operations = 0x3FFFFF;
    const auto inOrder = Replay(workload, options);
    EXPECT_EQ(inOrder.result.replay.operations, 18U);
    for (const Disagreement& disagreement : inOrder.result.replay.check.first) {
        ADD_FAILURE() << "line " << disagreement.line << ": " << disagreement.what;
    }
    std::map<zpregflt::RecordType, int> count;
    for (const SeenEvent& event : inOrder.events) {
        ++count[event.type];
    }
    EXPECT_EQ(count[zpregflt::RecordType::kKeySaved], 1);
    EXPECT_EQ(count[zpregflt::RecordType::kHiveLoaded], 2);
    EXPECT_EQ(count[zpregflt::RecordType::kKeySecuritySet], 1);

    options.check = false;
    options.parallel = true;
    EXPECT_EQ(Replay(workload, options).result.eventsByType, inOrder.result.eventsByType);
}

/// What is wrong in the file is found when it is replayed.
TEST(Replay, DisagreementsNameTheirLine) {
    const TemporaryFile file(WorkloadHeader() + Start(32) +
                             CreateKey(32, 4, R"("\\Registry\\Machine\\New")") +
                             CreateKey(32, 8, R"("\\Registry\\Machine\\New")") +
                             Call("delete-value", 32, 8, R"("name":"none","status":"00000000")"));
    const Workload workload = Workload::Read(file.Path());
    MonitoredReplayOptions options;
    options.check = true;
    const auto [result, events] = Replay(workload, options);
    ASSERT_EQ(result.replay.check.disagreements, 2U);
    EXPECT_EQ(result.replay.check.first[0].line, 4U);
    EXPECT_EQ(result.replay.check.first[0].what, "expected disposition 1, got 2");
    EXPECT_EQ(result.replay.check.first[1].line, 5U);
    EXPECT_EQ(result.replay.check.first[1].what, "expected status 00000000, got status c0000034");
}

TEST(Replay, ExemptAndTrustedProcessesAreLeftOutUnlessOverridden) {
    const TemporaryFile file(WorkloadHeader() + Start(32) + Start(40) +
                             CreateKey(32, 4, R"("\\Registry\\Machine\\A")") +
                             CreateKey(40, 4, R"("\\Registry\\Machine\\B")") + Exit(32) + Exit(40));
    const Workload workload = Workload::Read(file.Path());
    MonitoredReplayOptions options;
    options.operations = zpregflt::operation::kCreateKeyEx;
    options.exemptImages = {u"P32.EXE"};
    EXPECT_EQ(Replay(workload, options).events.size(), 1U);
    options.overrideMask = zpregflt::OVERRIDE_EXEMPTIONS;
    EXPECT_EQ(Replay(workload, options).events.size(), 2U);
}

}  // namespace
}  // namespace zpregmon
