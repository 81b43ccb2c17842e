#include "client/event_filter.h"

#include "client/event_summary.h"
#include "client/every_kind.h"
#include "client/made_event.h"
#include "client/record_decoder.h"

#include <gtest/gtest.h>

namespace zpregmon {
namespace {

TEST(Glob, MatchesAllOfTheText) {
    struct Case {
        const char16_t* pattern;
        const char16_t* text;
        bool matches;
    };
    const Case cases[] = {
        {u"", u"", true},
        {u"*", u"", true},
        {u"?", u"", false},
        {u"a*b*c", u"aXbXbc", true},
        {u"a*b*c", u"aXbXbcd", false},
        {u"*\\Run", u"\\A\\RUN", true},
        {u"*\\Run", u"\\A\\RunOnce", false},
        {u"?x", u"\\x", true},
        {u"[a]", u"a", false},
        {u"**a**", u"bab", true},
        {u"\u00C4\u0416\u03A9", u"\u00E4\u0436\u03C9", true},
        {u"\u0100", u"\u0101", true},
        {u"\u00D7", u"\u00F7", false},  // signs, not letters
        {u"*a*a*a*a*a*b", u"aaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaa", false},
    };
    for (const Case& test : cases) {
        EXPECT_EQ(MatchesGlob(test.pattern, test.text), test.matches) << &test - cases << ". case";
    }
}

/// How many of the 24 events, of every kind, pass.
std::size_t Passing(const std::vector<std::string>& include,
                    const std::vector<std::string>& exclude, const ProcessImages* images) {
    EventFilter filter;
    for (const std::string& rule : include) {
        EXPECT_EQ(filter.Include(rule), "");
    }
    for (const std::string& rule : exclude) {
        EXPECT_EQ(filter.Exclude(rule), "");
    }
    const std::vector<std::byte> image = EveryKind();
    RecordDecoder decoder(image);
    std::size_t passing = 0;
    for (Event event; decoder.Next(event);) {
        passing += filter.Passes(event, images) ? 1 : 0;
    }
    return passing;
}

TEST(EventFilter, CombinesRules) {
    const OneImage images(u"\\Device\\HarddiskVolume1\\Windows\\RegEdit.exe");
    EXPECT_EQ(Passing({}, {}, nullptr), 24U);
    EXPECT_EQ(Passing({"op=value-set"}, {}, nullptr), 4U);
    EXPECT_EQ(Passing({"op=SETVALUEKEY,key-created", "op=FlushKey"}, {}, nullptr), 6U);
    EXPECT_EQ(Passing({"value=start"}, {}, nullptr), 4U) << "one of them enumerated";
    EXPECT_EQ(Passing({"value="}, {}, nullptr), 1U) << "the default value";
    EXPECT_EQ(Passing({"value=B*"}, {}, nullptr), 2U) << "Blob, and one of several";
    EXPECT_EQ(Passing({"value=start", "op=value-set"}, {}, nullptr), 1U);
    EXPECT_EQ(Passing({}, {"value=*", "op=key-created"}, nullptr), 15U);
    EXPECT_EQ(Passing({"key=hklm\\system\\*"}, {}, nullptr), 24U);
    EXPECT_EQ(Passing({"key=HKEY_LOCAL_MACHINE\\system\\*\\dhcp"}, {}, nullptr), 24U);
    EXPECT_EQ(Passing({"key=\\registry\\machine\\*"}, {}, nullptr), 24U);
    EXPECT_EQ(Passing({"key=HK*"}, {}, nullptr), 24U);
    EXPECT_EQ(Passing({"key=HKLM"}, {}, nullptr), 0U);
    EXPECT_EQ(Passing({"key=HKU\\*", "key=*\\Dhcp"}, {}, nullptr), 24U);
    EXPECT_EQ(Passing({"pid=1,32"}, {}, nullptr), 24U);
    EXPECT_EQ(Passing({}, {"pid=32"}, nullptr), 0U);
    EXPECT_EQ(Passing({"image=regedit.EXE"}, {}, &images), 24U);
    EXPECT_EQ(Passing({"image=*\\windows\\*"}, {}, &images), 24U);
    EXPECT_EQ(Passing({"image=*"}, {}, nullptr), 0U) << "no image is known";
}

TEST(EventFilter, SaysWhatIsWrongWithARule) {
    struct Case {
        const char* rule;
        const char* said;
    };
    constexpr const char* kNoFilter = "is no filter, expected op=";
    constexpr const char* kNoOperation = "' is no operation, expected";
    constexpr const char* kNoNumber = "' is no process id, expected";
    constexpr const char* kNoRoot = "expected a path under HKLM, HKU or \\REGISTRY";
    const Case cases[] = {
        {"", kNoFilter},
        {"op", kNoFilter},
        {"=x", kNoFilter},
        {"Key=x", kNoFilter},
        {"op=", kNoOperation},
        {"op=Nothing", kNoOperation},
        {"op=value-set,", kNoOperation},
        {"op=value-set,OpenKeyEx", "'OpenKeyEx' makes no records"},
        {"pid=", kNoNumber},
        {"pid=x", kNoNumber},
        {"pid=-1", kNoNumber},
        {"pid=4294967296", kNoNumber},
        {"key=\xff", "'key=\xff' is not UTF-8"},
        {"key=HKCU\\*", kNoRoot},
        {"key=hkcr", kNoRoot},
        {"key=HKEY_Current_Config\\x", kNoRoot},
    };
    EventFilter filter;
    for (const auto& [rule, said] : cases) {
        const std::string problem = filter.Include(rule);
        EXPECT_NE(problem.find(said), std::string::npos) << rule << ": " << problem;
    }
    EXPECT_TRUE(filter.IsEmpty());
}

TEST(EventSummary, CountsAndDraws) {
    EventSummary summary({.top = 2, .depth = 2, .columns = 0});
    EXPECT_EQ(summary.Describe(), "           0  events\n");
    std::vector<std::byte> image = EveryKind();
    RecordDecoder decoder(image);
    for (Event event; decoder.Next(event);) {
        std::byte* const record = &*(image.end() - event.Record().size());
        auto header = LoadField<zpregflt::RecordHeader>(record);
        header.SystemTime += summary.Events() * 10'000'000;  // one a second
        header.ProcessId = summary.Events() % 4 == 0 ? 7 : 32;
        std::memcpy(record, &header, sizeof(header));
        summary.Add(event);
    }
    const std::string text = summary.Describe();
    for (const char* line : {
             "          24  events\n",
             "           4  value-set\n",
             "          18  process 32\n           6  process 7\n",
             "          24  HKLM\\SYSTEM\n",
             "           2  HKLM\\SYSTEM\\ControlSet001\\Services\\Dhcp\\Start\n",
             "              and 2 more\n",
             "       1 \u2588",
             "2026-11-22T19:42:51.123",
             "2026-11-22T19:43:14.123\n",
         }) {
        EXPECT_NE(text.find(line), std::string::npos) << line << "is not in\n" << text;
    }
}

/// However far apart times are and in whatever order they come.
TEST(TimeHistogram, TakesAnyTimes) {
    TimeHistogram times;
    EXPECT_EQ(times.Draw(80), "");
    for (std::uint64_t i = 0; i < 20'000; ++i) {
        times.Add(i * 0x9E3779B97F4A7C15);
    }
    times.Add(~std::uint64_t{0});
    times.Add(0);
    const std::string text = times.Draw(80);
    EXPECT_EQ(std::count(text.begin(), text.end(), '\n'), 7);
    EXPECT_NE(text.find("1601-01-01T00:00:00.000"), std::string::npos);
    EXPECT_NE(text.find("60056-05-28T05:36:10.955"), std::string::npos);
}

}  // namespace
}  // namespace zpregmon
