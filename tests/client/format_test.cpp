#include "client/format.h"

#include "client/made_event.h"
#include "client/vocabulary.h"

#include <gtest/gtest.h>

#include <map>

namespace zpregmon {
namespace {

using zpregflt::RecordType;

class KnownImages final : public ProcessImages {
public:
    const std::u16string* Find(std::uint32_t processId) const override {
        const auto found = images.find(processId);
        return found != images.end() ? &found->second : nullptr;
    }
    std::map<std::uint32_t, std::u16string> images = {
        {32, u"\\Device\\HarddiskVolume1\\windows\\r\u00E9g.exe"}};
};

/// 22 November 2026, 19:42:51.1234567.
constexpr std::uint64_t kTime = 134398501711234567;

/// Without a key when the path is null.
MadeEvent MakeEvent(RecordType type, std::u16string_view key) {
    return {{type, 0, 32, 0, 0x1DD7AE98C5BCB2F, kTime, 0x402, 0}, key};
}

std::string Format(std::string_view name, const Event& event,
                   const ProcessImages* images = nullptr) {
    FormatSettings settings;
    settings.images = images;
    TextBuffer out;
    FindFormat(name)->make(settings)->Append(event, out);
    return fmt::to_string(out);
}

/// The names are an interface: each is spelled out here.
constexpr const char* kRecordNames[] = {"value-set",
                                        "value-deleted",
                                        "key-information-set",
                                        "key-renamed",
                                        "subkey-enumerated",
                                        "value-enumerated",
                                        "key-queried",
                                        "value-queried",
                                        "values-queried",
                                        "hive-loaded",
                                        "key-saved",
                                        "key-security-set",
                                        "key-security-queried",
                                        "key-restored",
                                        "key-replaced",
                                        "key-flushed",
                                        "hive-unloaded",
                                        "key-handle-closed",
                                        "key-deleted",
                                        "key-name-queried",
                                        "key-created"};

TEST(JsonLines, EveryKindHasTheCommonKeysInTheirOrder) {
    for (std::uint32_t type = 1; type <= zpregflt::kLastRecordType; ++type) {
        const std::string line =
            Format("jsonl", MakeEvent(static_cast<RecordType>(type), u"\\REGISTRY\\MACHINE\\A"));
        const std::string expected = std::string("{\"record\":\"") + kRecordNames[type - 1] +
                                     "\",\"time\":\"2026-11-22T19:42:51.1234567Z\",\"pid\":32,"
                                     "\"process_key\":\"0x01dd7ae98c5bcb2f\","
                                     "\"operations\":[\"SetValueKey\",\"CreateKeyEx\"],"
                                     "\"key\":\"\\\\REGISTRY\\\\MACHINE\\\\A\"";
        EXPECT_EQ(line.substr(0, expected.size()), expected);
        EXPECT_EQ(line.back(), '\n');
    }
}

TEST(JsonLines, KeyCreated) {
    const KnownImages images;
    EXPECT_EQ(Format("jsonl", MakeEvent(RecordType::kKeyCreated, {}), &images),
              "{\"record\":\"key-created\",\"time\":\"2026-11-22T19:42:51.1234567Z\",\"pid\":32,"
              "\"image\":\"\\\\Device\\\\HarddiskVolume1\\\\windows\\\\r\u00E9g.exe\","
              "\"process_key\":\"0x01dd7ae98c5bcb2f\","
              "\"operations\":[\"SetValueKey\",\"CreateKeyEx\"],\"key\":null}\n");
}

TEST(JsonLines, TextBecomesJsonStrings) {
    struct Case {
        std::u16string_view text;
        const char* json;
    };
    using namespace std::string_view_literals;
    const Case cases[] = {
        {u"", ""},
        {u"a\"b\\c/"sv, "a\\\"b\\\\c/"},
        {u"\x01\n\x1F"sv, "\\u0001\\u000a\\u001f"},
        {u"\x7F\x80\u00E9\u20AC"sv, "\x7F\xC2\x80\u00E9\u20AC"},
        {u"\U0001F511", "\U0001F511"},
        {u"\xD800"sv, "\\ud800"},
        {u"\xDC00\xD800"sv, "\\udc00\\ud800"},
        {u"\xD83D\xD83D\xDD11"sv, "\\ud83d\U0001F511"},
        {u"x\xDBFF"sv, "x\\udbff"},
        {u"\uFFFF", "\uFFFF"},
    };
    for (const Case& test : cases) {
        const std::string line = Format("jsonl", MakeEvent(RecordType::kKeyCreated, test.text));
        const std::size_t start = line.find("\"key\":\"") + 7;
        EXPECT_EQ(line.substr(start, line.size() - start - 3), test.json);
    }
}

TEST(JsonLines, UnknownOperationBitsAreKept) {
    MadeEvent event = MakeEvent(RecordType::kKeyCreated, {});
    event.header.KeyOperations = 0x80200001;
    EXPECT_NE(Format("jsonl", event)
                  .find("\"operations\":[\"DeleteKey\",\"QueryKeyName\",\"0x80000000\"]"),
              std::string::npos);
}

TEST(Table, KeyCreated) {
    const KnownImages images;
    EXPECT_EQ(
        Format("table", MakeEvent(RecordType::kKeyCreated, u"\\Registry\\Machine\\Soft"), &images),
        "19:42:51.1234567  r\u00E9g.exe                        32  key-created           "
        "HKLM\\Soft\n");
    EXPECT_EQ(Format("table", MakeEvent(RecordType::kKeyDeleted, {})),
              "19:42:51.1234567  -                              32  key-deleted           -\n");
}

TEST(Table, ShortensRootsAndNothingElse) {
    struct Case {
        std::u16string_view path;
        const char* shown;
    };
    using namespace std::string_view_literals;
    const Case cases[] = {
        {u"\\REGISTRY\\MACHINE", "HKLM"},
        {u"\\registry\\user\\S-1-5-18", "HKU\\S-1-5-18"},
        {u"\\REGISTRY\\MACHINES\\x", "\\REGISTRY\\MACHINES\\x"},
        {u"\\REGISTRY\\A", "\\REGISTRY\\A"},
        {u"", ""},
        // A name must not be able to steer the terminal.
        {u"a\x1B[2Jb\r\x9B\x7F"sv, "a\\u001b[2Jb\\u000d\\u009b\\u007f"},
        {u"\u061Ca\u200Bb\u200Fc\u2010\uFEFF"sv, "\\u061ca\\u200bb\\u200fc\u2010\\ufeff"},
        {u"\xD800"sv, "\uFFFD"},
    };
    for (const Case& test : cases) {
        const std::string line = Format("table", MakeEvent(RecordType::kKeyCreated, test.path));
        const std::size_t start = line.find("key-created") + 22;
        EXPECT_EQ(line.substr(start, line.size() - start - 1), test.shown);
    }
}

/// One format serves many events: the next second, another process, an image learnt late.
TEST(Formats, KeepNothingThatIsOutOfDate) {
    KnownImages images;
    FormatSettings settings;
    settings.images = &images;
    const auto format = MakeJsonLinesFormat(settings);
    const auto line = [&](std::uint32_t pid, std::uint64_t time) {
        MadeEvent event = MakeEvent(RecordType::kKeyCreated, {});
        event.header.ProcessId = pid;
        event.header.SystemTime = time;
        TextBuffer out;
        format->Append(event, out);
        return fmt::to_string(out);
    };
    EXPECT_NE(line(32, kTime).find("19:42:51.1234567Z\",\"pid\":32,\"image\""), std::string::npos);
    EXPECT_NE(line(36, kTime + 10'000'000).find("19:42:52.1234567Z\",\"pid\":36,\"process_key\""),
              std::string::npos);
    images.images.emplace(36, u"x");
    EXPECT_NE(line(36, kTime - 1).find("19:42:51.1234566Z\",\"pid\":36,\"image\":\"x\""),
              std::string::npos);
    EXPECT_NE(line(32, 0).find("1601-01-01T00:00:00.0000000Z\",\"pid\":32,\"image\""),
              std::string::npos);
}

TEST(Operations, AreGivenByNameOrNumber) {
    std::string problem;
    EXPECT_EQ(ParseOperations("CreateKeyEx", problem), 0x400U);
    EXPECT_EQ(ParseOperations("setvaluekey,QUERYKEYNAME", problem), 0x200002U);
    EXPECT_EQ(ParseOperations("0x402", problem), 0x402U);
    EXPECT_EQ(ParseOperations("23", problem), 23U);
    EXPECT_EQ(ParseOperations("0", problem), 0U);
    for (const char* wrong : {"", "CreateKey", "CreateKeyEx,", ",", "0x400000", "12x", "0x",
                              "99999999999", "CreateKeyEx SetValueKey"}) {
        problem.clear();
        EXPECT_EQ(ParseOperations(wrong, problem), std::nullopt) << wrong;
        EXPECT_NE(problem.find("expected"), std::string::npos) << wrong;
    }
}

}  // namespace
}  // namespace zpregmon
