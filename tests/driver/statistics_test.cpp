// The counters that the driver writes to the trace when a controller turns it on.
#include "driver/driver_fixture.h"
#include "intercept/tracing.h"

#include <mutex>

namespace driver_test {

namespace {

using namespace zpregflt;

class StatisticsTest : public DriverTest {
protected:
    /// The lines that turning the provider on leaves: the arguments of each event, in one line.
    std::vector<std::string> Enable(UCHAR level, ULONG flags) {
        lines_.clear();
        controller_.Enable(level, flags);
        return lines_;
    }
    std::vector<std::string> Disable() {
        lines_.clear();
        controller_.Disable();
        return lines_;
    }

private:
    void Add(const platform::TraceEvent& event) {
        std::string line;
        for (std::size_t i = 1; i < event.arguments.size(); ++i) {
            const bool isNumber = event.arguments[i].size() == sizeof(LONG64) &&
                                  event.NarrowText(i) != "Callback" &&
                                  event.NarrowText(i) != "Shutdown";
            line += (i > 1 ? " " : "") +
                    (isNumber ? std::to_string(event.Number(i)) : event.NarrowText(i));
        }
        lines_.push_back(std::to_string(event.descriptor.Keyword) + ": " + line);
    }

    std::vector<std::string> lines_;
    platform::TraceController controller_{
        kTraceProviderId, [this](const platform::TraceEvent& event) { Add(event); }};
};

std::vector<std::string> OperationLines() {
    std::vector<std::string> lines = {"1: ", "1: Callback Hit Log Filter Fail"};
    for (ULONG notifyClass = 0; notifyClass < kOperationClassCount; ++notifyClass) {
        const Counters counters = CountersOf(notifyClass);
        lines.push_back(std::string("1: ") + OperationTable[notifyClass].Name + " " +
                        std::to_string(counters.hit) + " " + std::to_string(counters.log) + " " +
                        std::to_string(counters.filter) + " " + std::to_string(counters.fail));
    }
    lines.emplace_back("1: ");
    return lines;
}

std::vector<std::string> PoolLines() {
    const auto counters = [](const volatile LONG64(&phases)[kPoolPhaseCount], const char* label) {
        std::string line = "2:";
        for (const volatile LONG64& count : phases)
            line += " " + std::to_string(count);
        return line + " " + label;
    };
    return {"2: Boot Normal Shutdown", counters(Pool.reserveOk, "made"),
            counters(Pool.reserveFailed, "failed"), "2: "};
}

TEST_F(StatisticsTest, LinesByFlagAndLevel) {
    Start();
    std::vector<std::string> both = OperationLines();
    ASSERT_EQ(both.size(), 3u + 49);
    EXPECT_EQ(Enable(TRACE_LEVEL_VERBOSE, TRACE_DRIVER), both);
    EXPECT_EQ(Enable(TRACE_LEVEL_VERBOSE, TRACE_BUFFER), PoolLines());
    for (std::string& line : PoolLines())
        both.push_back(std::move(line));
    EXPECT_EQ(Enable(TRACE_LEVEL_VERBOSE, TRACE_DRIVER | TRACE_BUFFER), both);
    EXPECT_TRUE(Enable(TRACE_LEVEL_INFORMATION, TRACE_DRIVER | TRACE_BUFFER).empty());
    EXPECT_TRUE(Enable(TRACE_LEVEL_VERBOSE, TRACE_OPERATION | TRACE_CONTROL).empty());
    EXPECT_TRUE(Disable().empty());
}

/// Each of the four counters and of the three phases has gone its own way.
TEST_F(StatisticsTest, CountersInTheirColumns) {
    Start();
    {
        const ThreadScope thread(Worker());
        const KeyHandle key = platform::MakeKey(platform::kTestKey);
        platform::SetValue(key, u"v", REG_BINARY, "1");
        platform::SetValue(key, u"v", REG_BINARY, "2");
        platform::DeleteValue(key, u"v");
        platform::DeleteValue(key, u"v");
        NtFlushKey(key);
    }
    const auto loan = TheClient().Lend();
    for (LONG64 i = 0; i < 3; ++i)
        WriteMark(1);
    EXPECT_FALSE(Space(0x20000));
    TheClient().Flush();
    machine_->NotifyShutdown();
    const LONG64 boot = Pool.reserveOk[0];
    std::vector<std::string> expected = OperationLines();
    EXPECT_EQ(expected[2 + RegNtPostDeleteValueKey], "1: RegNtPostDeleteValueKey 2 1 0 1");
    EXPECT_EQ(expected[2 + RegNtPostFlushKey], "1: RegNtPostFlushKey 1 0 1 0");
    EXPECT_EQ(Enable(TRACE_LEVEL_VERBOSE, TRACE_DRIVER), expected);
    Disable();
    expected = PoolLines();
    EXPECT_GT(boot, 0);
    EXPECT_EQ(expected[2], "2: 0 1 0 failed");
    EXPECT_EQ(Enable(TRACE_LEVEL_VERBOSE, TRACE_BUFFER), expected);
}

/// A provider that is on already when it registers cannot write yet; that harms nothing.
TEST_F(StatisticsTest, OnBeforeTheDriver) {
    Enable(TRACE_LEVEL_VERBOSE, TRACE_DRIVER | TRACE_BUFFER);
    Start();
    EXPECT_EQ(Enable(TRACE_LEVEL_VERBOSE, TRACE_DRIVER), OperationLines());
}

}  // namespace

}  // namespace driver_test
