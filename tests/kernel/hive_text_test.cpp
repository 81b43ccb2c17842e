// The text of hives, as it is written and read.
#include "kernel/hive_fixture.h"

#include "platform/kernel/hive_text.h"

namespace platform {
namespace {

using HiveTextTest = HiveTest;

TEST_F(HiveTextTest, TextIsWhatEditorsExport) {
    machine_.SetSystemTime(0x01DB00A1B2C3D4E5);
    const KeyHandle key = MakeKey(kTestKey, {.className = u"Kind"});
    using namespace std::string_view_literals;
    SetValue(key, u"", REG_SZ, "d\0\0\0"sv);
    SetValue(key, u"a\\\"b", REG_DWORD, "\x2A\0\0\0"sv);
    SetValue(key, u"open", REG_SZ, "d\0"sv);
    SetValue(key, u"strange", 0x80000001, "\x1");
    SetValue(key, u"long", REG_BINARY, std::string(30, '\xFF'));
    SetValue(MakeKey(u"a\nb", {.root = key}), u"empty", REG_NONE, "");
    std::string text = ToUtf8(WriteHiveText(NodeOf(key)));
    std::string security = ";@security=hex:01,00,04,";
    for (std::size_t at = 0; (at = text.find(security, at)) != text.npos;)
        text.erase(at, text.find("\r\n", at) + 2 - at);
    EXPECT_EQ(text, kHiveHeader +
                        "[HKEY_LOCAL_MACHINE\\Test]\r\n"
                        ";@class=\"Kind\"\r\n"
                        ";@written=01db00a1b2c3d4e5\r\n"
                        "@=\"d\"\r\n"
                        "\"a\\\\\\\"b\"=dword:0000002a\r\n"
                        "\"open\"=hex(1):64,00\r\n"
                        "\"strange\"=hex(80000001):01\r\n"
                        "\"long\"=hex:ff,ff,ff,ff,ff,ff,ff,ff,ff,ff,ff,ff,ff,ff,ff,ff,ff,ff,ff,ff,"
                        "ff,ff,\\\r\n  ff,ff,ff,ff,ff,ff,ff,ff\r\n"
                        "\r\n"
                        "[HKEY_LOCAL_MACHINE\\Test\\a\\\\nb]\r\n"
                        ";@written=01db00a1b2c3d4e5\r\n"
                        "\"empty\"=hex(0):\r\n");
}

TEST_F(HiveTextTest, TextThatPeopleWriteIsRead) {
    Fill("written",
         "\xEF\xBB\xBFWindows Registry Editor Version 5.00\n\n"
         "; a comment of its own\n"
         "[HKEY_CURRENT_USER\\Any]  \n"
         "\"Caf\xC3\xA9\" = dword:2A\n"
         "@=\"C:\\\\x\"\n"
         "[HKEY_CURRENT_USER\\any\\made\\on the way]\n"
         "\"h\"=hex(7):61, 00,\\\n\n   00,0,\n");
    ASSERT_EQ(Load(u"\\Registry\\User\\Hive", "written"), STATUS_SUCCESS);
    {
        const KeyHandle key = OpenKeyOf(u"\\Registry\\User\\Hive").key;
        const KeyHandle sub = OpenKeyOf(u"Made\\On the way", {.root = key}).key;
        EXPECT_EQ(QueryValue(key, u"CAF\u00C9").data, std::string("\x2A\0\0\0", 4));
        EXPECT_EQ(QueryValue(key, u"").data, std::string("C\0:\0\\\0x\0\0\0", 10));
        EXPECT_EQ(QueryValue(sub, u"h").data, std::string("a\0\0\0", 4));
        EXPECT_EQ(QueryValue(sub, u"h").type, REG_MULTI_SZ);
        // What says nothing of its security inherits as a new key does.
        EXPECT_EQ(NodeOf(sub).Security(), NodeOf(MakeKey(u"New", {.root = sub})).Security());
    }
    EXPECT_EQ(Unload(u"\\Registry\\User\\Hive"), STATUS_SUCCESS);
}

TEST_F(HiveTextTest, BadTextIsRefusedWithItsPlace) {
    const struct {
        const char* text;  ///< behind the header and an empty line; the first line is line 3
        std::size_t line;
        const char* expected;
    } cases[] = {
        {"", 3, "a key"},
        {"@=\"x\"", 3, "a key before values"},
        {"[]", 3, "[path of a key]"},
        {"[-x]", 3, "[path of a key]"},
        {"[x\\]", 3, "[path of a key]"},
        {"[x\\\\y]", 3, "[path of a key]"},
        {"[x\\\\\\\\n]", 3, "[path of a key]"},
        {"[x]\n[y]", 4, "a key below the first one"},
        {"[x]\n[xy\\z]", 4, "a key below the first one"},
        {"[x]\nname=1", 4, "a key, a comment or a value"},
        {"[x]\n\"name", 4, "\" at the end of the text"},
        {"[x]\n\"na\\me\"=1", 4, "\\, \", n, r or 0 behind a backslash"},
        {"[x]\n\"name\"", 4, "="},
        {"[x]\n\"name\"=-", 4, "a quoted text, dword: or hex"},
        {"[x]\n\"name\"=\"a\"b", 4, "the end of the line"},
        {"[x]\n\"name\"=dword:", 4, "a hexadecimal number"},
        {"[x]\n\"name\"=dword:123456789", 4, "the end of the line"},
        {"[x]\n\"name\"=hex(1:", 4, ")"},
        {"[x]\n\"name\"=hex(1)1", 4, ":"},
        {"[x]\n\"name\"=hex:1,g", 4, "a hexadecimal number"},
        {"[x]\n\"name\"=hex:123", 4, ","},
        {"[x]\n\"name\"=hex:12,\\ 13", 4, "the end of the line"},
        {"[x]\n;@color=1", 4, "link, class=, written= or security=hex:"},
        {"[x]\n;@security=hex:01,00,04,80", 4, "a security descriptor with owner and group"},
    };
    const KeyHandle key = MakeKey(kTestKey);
    SetValue(key, u"kept", REG_SZ, "");
    for (const auto& row : cases) {
        HiveTextError error;
        const std::string text = kHiveHeader + row.text;
        EXPECT_EQ(ReadHiveText(ToUtf16(text), error), nullptr) << row.text;
        EXPECT_EQ(error.status, STATUS_REGISTRY_CORRUPT) << row.text;
        EXPECT_EQ(error.line, row.line) << row.text;
        EXPECT_EQ(error.expected, row.expected) << row.text;
    }
    HiveTextError error;
    EXPECT_EQ(ReadHiveText(u"REGEDIT4\r\n", error), nullptr);
    EXPECT_EQ(error.status, STATUS_NOT_REGISTRY_FILE);
    EXPECT_EQ(ReadHiveText(ToUtf16(kHiveHeader) + u"[" + std::u16string(256, u'k') + u"]", error),
              nullptr);
    std::u16string deep = ToUtf16(kHiveHeader) + u"[x]\n[x";
    for (unsigned level = 1; level < kMaxKeyDepth; ++level)
        deep += u"\\x";
    EXPECT_EQ(ReadHiveText(deep + u"\\x]", error), nullptr);

    // A key that fits into a hive need not fit where it is to go.
    Fill("deep", ToUtf8(deep + u"]"));
    EXPECT_EQ(NtRestoreKey(key, OpenFile("deep"), 0), STATUS_INVALID_PARAMETER);
    EXPECT_EQ(Load(u"\\Registry\\Machine\\Deep", "deep"), STATUS_INVALID_PARAMETER);
    EXPECT_EQ(OpenKeyOf(u"\\Registry\\Machine\\Deep").status, STATUS_OBJECT_NAME_NOT_FOUND);
    Fill("bad", kHiveHeader + "[x]\n?");
    EXPECT_EQ(NtRestoreKey(key, OpenFile("bad"), 0), STATUS_REGISTRY_CORRUPT);
    EXPECT_EQ(Replace(key, "bad", "old"), STATUS_REGISTRY_CORRUPT);
    EXPECT_FALSE(std::filesystem::exists(folder_ / "old"));
    EXPECT_EQ(ValueNames(key), std::vector<std::u16string>{u"kept"});
}

TEST_F(HiveTextTest, DamagedTextDoesNoHarm) {
    const KeyHandle key = MakeKey(kTestKey, {.className = u"Kind"});
    SetValue(key, u"text", REG_SZ, std::string_view("x\0\0\0", 4));
    SetValue(MakeKey(u"a\nb", {.root = key}), u"h", REG_MULTI_SZ, std::string(40, 'h'));
    const std::u16string text = WriteHiveText(NodeOf(key));
    std::size_t read = 0;
    for (std::size_t at = 0; at < text.size(); ++at) {
        for (const char16_t character : {u'\\', u'"', u'\n', u'[', u'9', u'\0'}) {
            std::u16string damaged = text;
            damaged[at] = character;
            HiveTextError error;
            if (ReadHiveText(damaged, error) != nullptr) ++read;
        }
        HiveTextError error;
        if (ReadHiveText(text.substr(0, at), error) != nullptr) ++read;
    }
    EXPECT_GT(read, 0U);
    EXPECT_LT(read, text.size() * 7);
}

}  // namespace
}  // namespace platform
