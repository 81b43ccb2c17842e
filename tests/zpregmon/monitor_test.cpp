// Watching a machine that goes on working, as a user watches a system.
#include "zpregmon/session/monitor.h"

#include "kernel/registry_fixture.h"
#include "zpregmon/replay/monitored_machine.h"
#include "zpregmon/replay/platform_device.h"
#include "zpregmon/session/seen_processes.h"
#include "zpregmon/temporary_file.h"

#include <gtest/gtest.h>

#include <condition_variable>
#include <mutex>

namespace zpregmon {
namespace {

constexpr std::size_t kKeysOfRound = 10;
constexpr std::size_t kRounds = 5;

class MonitorTest : public testing::Test {
protected:
    MonitorTest() { platform::EnableVerifier(true); }

    /// Creates keys and flushes by turns: what a round made must come before the next one begins.
    bool Pause() {
        {
            std::unique_lock guard(lock_);
            arrived_.wait(guard, [this] { return ended_ == created_.size(); });
        }
        const platform::ThreadScope scope(*worker_);
        for (std::size_t i = 0; i < kKeysOfRound; ++i) {
            const std::u16string path =
                u"\\Registry\\Machine\\Key" + platform::ToUtf16(std::to_string(created_.size()));
            EXPECT_EQ(platform::CreateKeyOf(path).status, STATUS_SUCCESS);
            created_.push_back(path);
        }
        return created_.size() < kRounds * kKeysOfRound;
    }

    MonitorCalls Calls() {
        MonitorCalls calls;
        calls.receive = [this](const Event& event) { received_.emplace_back(event.Key().value()); };
        calls.bufferEnds = [this] {
            const std::lock_guard guard(lock_);
            ended_ = received_.size();
            arrived_.notify_one();
        };
        calls.pause = [this] { return Pause(); };
        return calls;
    }

    MonitoredMachine machine_{MachineSettings{.initialKeys = {u"\\Registry\\Machine"}}};
    platform::ObjectRef<platform::Process> worker_ =
        machine_.Machine().StartProcess({.imagePath = u"\\Device\\HarddiskVolume1\\worker.exe"});
    MonitorOptions options_;
    std::vector<std::u16string> created_;
    std::vector<std::u16string> received_;

    std::mutex lock_;
    std::condition_variable arrived_;
    std::size_t ended_ = 0;  ///< events received up to the end of a buffer; guarded by lock_
};

TEST_F(MonitorTest, FetchesEventsAfterEveryPauseAndTheLastOnesAtTheEnd) {
    options_.settings.operations = zpregflt::operation::kCreateKeyEx;
    options_.settings.exemptImages = {u"other.exe", u"other.exe"};
    options_.session.buffers = 3;
    PlatformDevice device(machine_.Client());
    const MonitorResult result = RunMonitor(device, options_, Calls());
    EXPECT_EQ(received_, created_);
    EXPECT_EQ(result.events, kRounds * kKeysOfRound);
    EXPECT_EQ(result.session.buffersDelivered, kRounds);
    EXPECT_FALSE(result.LostEvents());
    EXPECT_EQ(DescribeMonitor(result),
              "events                          50\n"
              "  key-created                   50\n"
              "buffers delivered                5\n");
}

TEST_F(MonitorTest, SaysWhyTheDriverRefuses) {
    const TemporaryFile first;
    const TemporaryFile second;
    options_.settings.dumpFile = first.Path();
    created_.resize(kRounds * kKeysOfRound);  // ends at once
    ended_ = created_.size();
    PlatformDevice trusted(machine_.Client());
    RunMonitor(trusted, options_, Calls());
    options_.settings.dumpFile = second.Path();
    PlatformDevice untrusted(*worker_);
    const std::pair<ControlDevice*, const char*> cases[] = {
        {&trusted, "the driver has one until it is unloaded"},
        {&untrusted, "this program is not among the trusted images"},
    };
    for (const auto& [device, expected] : cases) {
        try {
            RunMonitor(*device, options_, Calls());
            ADD_FAILURE() << expected;
        } catch (const ControlError& error) {
            EXPECT_NE(std::string(error.what()).find(expected), std::string::npos) << error.what();
        }
    }
}

TEST(SeenProcesses, NamesTheProcessThatAnEventIsOf) {
    std::vector<std::uint64_t> asked;
    SeenProcesses processes([&](std::uint32_t processId, std::uint64_t time) {
        asked.push_back(time);
        return processId == 8 ? std::nullopt
                              : std::optional(time < 20 ? u"C:\\first.exe" : u"C:\\second.exe");
    });
    struct Step {
        std::uint32_t id;
        std::uint64_t key;
        std::uint64_t time;
        const char16_t* expected;
    };
    const Step steps[] = {
        {4, 1, 10, u"C:\\first.exe"},
        {4, 1, 15, u"C:\\first.exe"},
        {8, 2, 16, nullptr},
        {8, 2, 17, nullptr},
        {4, 3, 20, u"C:\\second.exe"},  // the id, given again
        {12, 4, 21, u"C:\\second.exe"},
        {4, 3, 22, u"C:\\second.exe"},
    };
    EXPECT_EQ(processes.Find(4), nullptr);
    const std::u16string* first = nullptr;
    for (const Step& step : steps) {
        zpregflt::RecordHeader record{};
        record.Type = zpregflt::RecordType::kKeyCreated;
        record.ProcessId = step.id;
        record.ProcessKey = step.key;
        record.SystemTime = step.time;
        processes.See(Event(std::as_bytes(std::span(&record, 1)), {}));
        const std::u16string* const image = processes.Find(step.id);
        ASSERT_EQ(image != nullptr, step.expected != nullptr) << step.time;
        EXPECT_TRUE(image == nullptr || *image == step.expected) << step.time;
        first = step.time == 10 ? image : first;
    }
    EXPECT_EQ(*first, u"C:\\first.exe") << "who was given a text may keep it";
    EXPECT_EQ(asked, (std::vector<std::uint64_t>{10, 16, 20, 21}));
}

TEST(SeenProcesses, TellsByItsBeginWhoseAnEventIs) {
    constexpr std::uint64_t kMillisecond = 10'000;
    struct Case {
        const char* what;
        std::uint64_t began, eventTime, now;  // milliseconds
        bool expected;
    };
    const Case cases[] = {
        {"long before", 100, 5000, 6000, true},
        {"at the event", 5000, 5000, 6000, true},
        {"within the event's tick", 5016, 5000, 6000, true},
        {"later, with the same id", 5017, 5000, 6000, false},
        {"later, just now", 6000, 5000, 6000, false},
        {"later, within the tick that now is in", 6015, 5000, 6000, false},
        {"before the clock was set back", 9000, 5000, 6000, true},
    };
    for (const Case& each : cases) {
        EXPECT_EQ(MayBeOf(each.began * kMillisecond, each.eventTime * kMillisecond,
                          each.now * kMillisecond),
                  each.expected)
            << each.what;
    }
}

}  // namespace
}  // namespace zpregmon
