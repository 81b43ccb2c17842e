// What the registry says about the driver's settings, and what the driver makes of it.
#include "driver/driver_fixture.h"

namespace driver_test {

namespace {

struct Value {
    const char16_t* subkey;
    const char16_t* name;  ///< null: only the key is made
    ULONG type;
    std::string data;
};

struct Settings {
    ULONG64 traceProcessId = 0;
    std::optional<std::u16string> traceProcessName = {};
    ULONG traceOperations = 0x17;
    ULONG reportOriginal = 0;
    ULONG captureMaxSize = 0xFFFFFFFF;
    ULONG overridePolicy = 0;
    ULONG reportOperations = 0;
    ULONG loggedOperations = 0x17;

    bool operator==(const Settings&) const = default;
    friend void PrintTo(const Settings& settings, std::ostream* out) {
        *out << std::hex << "process " << settings.traceProcessId << " name "
             << platform::ToUtf8(settings.traceProcessName.value_or(u"(none)")) << " trace "
             << settings.traceOperations << " original " << settings.reportOriginal << " capture "
             << settings.captureMaxSize << " override " << settings.overridePolicy << " report "
             << settings.reportOperations << " logged " << settings.loggedOperations;
    }
};

std::string Number(std::uint32_t number) {
    return {reinterpret_cast<const char*>(&number), sizeof(number)};
}
std::string Text(std::u16string_view text) {
    return {reinterpret_cast<const char*>(text.data()), text.size() * 2};
}

class ConfigurationTest : public DriverTest {
protected:
    static Settings Read() {
        Settings settings;
        settings.traceProcessId = State.TraceProcessId;
        if (State.TraceProcessName != nullptr) {
            EXPECT_EQ(State.TraceProcessName->MaximumLength, State.TraceProcessName->Length);
            settings.traceProcessName.emplace(platform::View(*State.TraceProcessName));
        }
        settings.traceOperations = State.TraceOperations;
        settings.reportOriginal = State.ReportOriginal;
        settings.captureMaxSize = State.CaptureMaxSize;
        settings.overridePolicy = State.Override;
        settings.reportOperations = State.ReportOperations;
        settings.loggedOperations = State.LoggedOperations;
        return settings;
    }
    void Write(const Value& value) {
        const std::u16string key =
            platform::ServiceKeyPath(u"zpregflt") + u"\\Parameters" + value.subkey;
        const char16_t* name = value.name != nullptr ? value.name : u"Unrelated";
        machine_->SetRegistryValue(key, name, value.type, value.data.data(), value.data.size());
    }
};

TEST_F(ConfigurationTest, IsReadAtStart) {
    using namespace std::string_view_literals;
    constexpr char16_t kNone[] = u"", kTrace[] = u"\\Trace", kReport[] = u"\\Report";
    const struct {
        const char* name;
        std::vector<Value> values;
        Settings expected;
    } cases[] = {
        // clang-format off
        {"no parameters", {}, {.traceOperations = 0, .captureMaxSize = 0}},
        {"empty parameters", {{kNone, nullptr, 0, {}}}, {}},
        {"empty subkeys", {{kTrace, nullptr, 0, {}}, {kReport, nullptr, 0, {}}}, {}},
        {"all numbers",
         {{kTrace, u"Process", REG_DWORD, Number(1234)}, {kTrace, u"Operations", REG_DWORD, Number(0)},
          {kReport, u"Original", REG_DWORD, Number(0x100)},
          {kReport, u"CaptureMaxSize", REG_DWORD, Number(4096)},
          {kReport, u"Override", REG_DWORD, Number(3)}, {kReport, u"Operations", REG_DWORD, Number(8)}},
         {.traceProcessId = 1234, .traceOperations = 0, .reportOriginal = 0x100, .captureMaxSize = 4096,
          .overridePolicy = 3, .reportOperations = 8, .loggedOperations = 0x1F}},
        {"process name", {{kTrace, u"Process", REG_SZ, Text(u"notepad.exe\0"sv)}},
         {.traceProcessName = u"notepad.exe"}},
        {"name without terminator loses a character", {{kTrace, u"Process", REG_SZ, Text(u"notepad.exe")}},
         {.traceProcessName = u"notepad.ex"}},
        {"empty name", {{kTrace, u"Process", REG_SZ, Text(u"\0"sv)}}, {.traceProcessName = u""}},
        {"name shorter than a terminator", {{kTrace, u"Process", REG_SZ, "x"}}, {}},
        {"name without data", {{kTrace, u"Process", REG_SZ, ""}}, {}},
        {"other types",
         {{kTrace, u"Process", REG_MULTI_SZ, Text(u"a\0"sv)}, {kTrace, u"Operations", REG_SZ, Text(u"1\0"sv)},
          {kReport, u"Operations", REG_BINARY, Number(8)}}, {}},
        {"numbers cut short",
         {{kReport, u"CaptureMaxSize", REG_DWORD, "abc"}, {kReport, u"Override", REG_DWORD, ""}}, {}},
        {"long number counts by its first bytes", {{kReport, u"Override", REG_DWORD, Number(2) + Number(9)}},
         {.overridePolicy = 2}},
        {"one subkey missing", {{kReport, u"Original", REG_DWORD, Number(1)}}, {.reportOriginal = 1}},
        // clang-format on
    };
    for (const auto& row : cases) {
        SCOPED_TRACE(row.name);
        Boot({});
        for (const Value& value : row.values)
            Write(value);
        Start();
        EXPECT_EQ(Read(), row.expected);
        Stop();
    }
}

/// Whatever fails while the settings are read, the driver starts; the settings concerned keep their
/// defaults.
TEST_F(ConfigurationTest, FailuresLeaveDefaults) {
    SetParameter(u"Trace", u"Process", 1234);
    SetParameter(u"Report", u"Override", 3);
    ASSERT_EQ(machine_->LoadDriver(::LibraryImage()), STATUS_SUCCESS);
    for (const platform::PlannedFault& planned :
         {platform::PlannedFault{.routine = "ZwOpenKey"},
          {.routine = "ZwQueryValueKey"},
          {.routine = "ExAllocatePoolWithTag", .tag = MakeTag("ZRcs")}}) {
        platform::PlannedFault fault = planned;
        for (bool fired = true; fired; ++fault.nth) {
            {
                const FaultPlan plan(fault);
                ASSERT_EQ(machine_->LoadDriver(MonitorImage()), STATUS_SUCCESS) << fault.routine;
                fired = plan.Fired();
            }
            const bool readId = State.TraceProcessId == 1234;
            const bool readOverride = State.Override == 3;
            EXPECT_TRUE(readId || State.TraceProcessId == 0);
            EXPECT_TRUE(readOverride || State.Override == 0);
            EXPECT_TRUE(fired || (readId && readOverride)) << fault.routine;
            EXPECT_EQ(machine_->UnloadDriver(u"zpregflt"), STATUS_SUCCESS);
        }
        EXPECT_GT(fault.nth, 2u) << fault.routine << " was never called";
    }
}

/// A change of the registry counts from the next load on.
TEST_F(ConfigurationTest, ReadOnce) {
    SetParameter(u"Report", u"Override", 1);
    Start();
    SetParameter(u"Report", u"Override", 2);
    EXPECT_EQ(State.Override, 1u);
    Stop();
    Start();
    EXPECT_EQ(State.Override, 2u);
}

}  // namespace

}  // namespace driver_test
