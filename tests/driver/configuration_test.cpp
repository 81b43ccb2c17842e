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

struct Case {
    const char* name;
    std::vector<Value> values;
    Settings expected;

    friend void PrintTo(const Case& c, std::ostream* out) { *out << c.name; }
};

std::string Number(std::uint32_t number) {
    return {reinterpret_cast<const char*>(&number), sizeof(number)};
}
std::string Text(std::u16string_view text) {
    return {reinterpret_cast<const char*>(text.data()), text.size() * 2};
}

using namespace std::string_view_literals;

const Case kCases[] = {
    {"NoParameters", {}, {.traceOperations = 0, .captureMaxSize = 0}},
    {"EmptyParameters", {{u"", nullptr, 0, {}}}, {}},
    {"EmptySubkeys", {{u"\\Trace", nullptr, 0, {}}, {u"\\Report", nullptr, 0, {}}}, {}},
    {"AllNumbers",
     {{u"\\Trace", u"Process", REG_DWORD, Number(1234)},
      {u"\\Trace", u"Operations", REG_DWORD, Number(0)},
      {u"\\Report", u"Original", REG_DWORD, Number(0x100)},
      {u"\\Report", u"CaptureMaxSize", REG_DWORD, Number(4096)},
      {u"\\Report", u"Override", REG_DWORD, Number(3)},
      {u"\\Report", u"Operations", REG_DWORD, Number(8)}},
     {.traceProcessId = 1234,
      .traceOperations = 0,
      .reportOriginal = 0x100,
      .captureMaxSize = 4096,
      .overridePolicy = 3,
      .reportOperations = 8,
      .loggedOperations = 0x1F}},
    {"ProcessName",
     {{u"\\Trace", u"Process", REG_SZ, Text(u"notepad.exe\0"sv)}},
     {.traceProcessName = u"notepad.exe"}},
    {"NameWithoutTerminatorLosesACharacter",
     {{u"\\Trace", u"Process", REG_SZ, Text(u"notepad.exe")}},
     {.traceProcessName = u"notepad.ex"}},
    {"EmptyName", {{u"\\Trace", u"Process", REG_SZ, Text(u"\0"sv)}}, {.traceProcessName = u""}},
    {"NameShorterThanATerminator", {{u"\\Trace", u"Process", REG_SZ, "x"}}, {}},
    {"NameWithoutData", {{u"\\Trace", u"Process", REG_SZ, ""}}, {}},
    {"OtherTypes",
     {{u"\\Trace", u"Process", REG_MULTI_SZ, Text(u"a\0"sv)},
      {u"\\Trace", u"Operations", REG_SZ, Text(u"1\0"sv)},
      {u"\\Report", u"Operations", REG_BINARY, Number(8)}},
     {}},
    {"NumbersCutShort",
     {{u"\\Report", u"CaptureMaxSize", REG_DWORD, "abc"},
      {u"\\Report", u"Override", REG_DWORD, ""}},
     {}},
    {"LongNumberCountsByItsFirstBytes",
     {{u"\\Report", u"Override", REG_DWORD, Number(2) + Number(9)}},
     {.overridePolicy = 2}},
    {"OneSubkeyMissing", {{u"\\Report", u"Original", REG_DWORD, Number(1)}}, {.reportOriginal = 1}},
};

class ConfigurationTest : public DriverTest, public testing::WithParamInterface<Case> {
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

TEST_P(ConfigurationTest, IsReadAtStart) {
    for (const Value& value : GetParam().values)
        Write(value);
    Start();
    EXPECT_EQ(Read(), GetParam().expected);
    Stop();
}

INSTANTIATE_TEST_SUITE_P(Driver, ConfigurationTest, testing::ValuesIn(kCases),
                         [](const testing::TestParamInfo<Case>& parameter) {
                             return std::string(parameter.param.name);
                         });

class ConfigurationFaultTest : public DriverTest {};

/// Whatever fails while the settings are read, the driver starts; the settings concerned keep their
/// defaults.
TEST_F(ConfigurationFaultTest, FailuresLeaveDefaults) {
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
TEST_F(ConfigurationFaultTest, ReadOnce) {
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
