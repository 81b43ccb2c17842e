// How values, security and information blocks are made readable: what the stored examples of the
// formats do not show.
#include "client/data_text.h"
#include "client/every_kind.h"
#include "client/security_text.h"
#include "client/terminal_width.h"
#include "client/text_sink.h"

#include <gtest/gtest.h>

#include <functional>

namespace zpregmon {
namespace {

std::string Written(const std::function<void(TextSink&)>& write) {
    TextBuffer text;
    {
        TextSink out(text);
        write(out);
    }
    return fmt::to_string(text);
}

TEST(DataText, ReadsDataByItsType) {
    struct Case {
        std::uint32_t type;
        RecordBody data;
        std::uint32_t size;  ///< 0: all is captured
        const char* shown;
    };
    const Case cases[] = {
        {4, RecordBody().U32(0), 0, "0"},
        {4, RecordBody().U32(0xFFFFFFFF), 0, "4294967295 (0xffffffff)"},
        {4, RecordBody().U16(7), 0, "0700"},
        {4, RecordBody().U16(7), 4, "0700... (2 of 4 bytes)"},
        {5, RecordBody().Hex({0, 0, 0, 1}), 0, "1"},
        {11, RecordBody().U64(10), 0, "10 (0xa)"},
        {1, RecordBody(), 0, "\"\""},
        {1, RecordBody(), 8, "(none of 8 bytes)"},
        {1, RecordBody().Text(u"no zero"), 0, "\"no zero\""},
        {1, RecordBody().Text(u"ab"), 100, "\"ab\"... (4 of 100 bytes)"},
        {1, RecordBody().TextAndZero(u"a").TextAndZero(u"b"), 0, "\"a\\u0000b\""},
        {1, RecordBody().Hex({1, 2, 3}), 0, "010203"},
        {2, RecordBody().TextAndZero(u"%x%\x1b"), 0, "\"%x%\\u001b\""},
        {7, RecordBody().U16(0), 0, "[]"},
        {7, RecordBody().Text(u"a"), 0, "[\"a\"]"},
        {7, RecordBody().TextAndZero(u"a").TextAndZero(u"").TextAndZero(u"b"), 0, "[\"a\"]"},
        {3, RecordBody(), 0, "(empty)"},
        {99, RecordBody().U16(1), 0, "0100"},
    };
    for (const Case& test : cases) {
        const Bytes bytes(test.data.Bytes());
        const auto size = test.size != 0 ? test.size : static_cast<std::uint32_t>(bytes.size());
        EXPECT_EQ(Written([&](TextSink& out) {
                      DataText(DataStyle::kShort).PutData(out, test.type, {size, bytes});
                  }),
                  test.shown)
            << "type " << test.type;
    }
    const std::vector<std::byte> many(1000);
    EXPECT_EQ(Written([&](TextSink& out) {
                  DataText(DataStyle::kShort).PutData(out, 3, {1000, many});
              }),
              fmt::format("{:0>128}... (64 of 1000 bytes)", ""));
}

TEST(DataText, ReadsInformationByItsClass) {
    DataText text(DataStyle::kShort);
    const auto key = [&](std::uint32_t informationClass, const RecordBody& data) {
        return Written(
            [&](TextSink& out) { text.PutKeyInformation(out, informationClass, data.Bytes()); });
    };
    EXPECT_EQ(key(1, RecordBody().U64(0).U32(0).U32(26).U32(2).U32(2).Text(u"nc")),
              "name \"n\", class \"c\", written 1601-01-01T00:00:00.0000000Z, KeyNodeInformation");
    EXPECT_EQ(key(3, RecordBody().U32(4).Text(u"\\a")), "name \"\\a\", KeyNameInformation");
    EXPECT_EQ(key(4, RecordBody().U64(0).U32(0).U32(2).U32(0).U32(3).U32(0).U32(0).U32(0)),
              "subkeys 2, values 3, written 1601-01-01T00:00:00.0000000Z, KeyCachedInformation");
    EXPECT_EQ(key(0, RecordBody().U32(1)), "01000000, KeyBasicInformation") << "too short";
    EXPECT_EQ(key(0, RecordBody()), "(empty), KeyBasicInformation");
    EXPECT_EQ(key(3, RecordBody().U32(0xFFFFFFFF).Text(u"\\a")), "name \"\\a\", KeyNameInformation")
        << "a length beyond the block";
    EXPECT_EQ(key(77, RecordBody().U16(1)), "0100, class 77");
    const auto value = [&](std::uint32_t informationClass, const RecordBody& data) {
        return Written(
            [&](TextSink& out) { text.PutValueInformation(out, informationClass, data.Bytes()); });
    };
    EXPECT_EQ(value(0, RecordBody().U32(0).U32(1).U32(2).Text(u"v")),
              "v = REG_SZ, KeyValueBasicInformation");
    EXPECT_EQ(value(4, RecordBody().U32(4).U32(4).U32(5)),
              "REG_DWORD 5, KeyValuePartialInformationAlign64");
    EXPECT_EQ(value(1, RecordBody().U32(0).U32(3).U32(0xFFFFFFF0).U32(2).U32(0)),
              "(Default) = REG_BINARY (none of 2 bytes), KeyValueFullInformation");
}

TEST(SecurityText, IsTheDefinitionLanguageOrHex) {
    const auto sid = [](const RecordBody& body) {
        return Written([&](TextSink& out) { PutSid(out, body.Bytes()); });
    };
    EXPECT_EQ(sid(RecordBody().Hex({1, 2, 0, 0, 0, 0, 0, 5}).U32(32).U32(544)), "S-1-5-32-544");
    EXPECT_EQ(sid(RecordBody().Hex({1, 0, 1, 0, 0, 0, 0, 0})), "S-1-0x010000000000");
    EXPECT_EQ(sid(RecordBody().Hex({1, 1, 0, 0, 0, 0, 0, 5})), "0101000000000005") << "cut off";
    EXPECT_EQ(sid(RecordBody().Hex({2, 0, 0, 0, 0, 0, 0, 5})), "0200000000000005") << "revision";
    EXPECT_EQ(sid(RecordBody()), "");

    const auto acl = [](const RecordBody& body) {
        return Written([&](TextSink& out) { PutAcl(out, body.Bytes()); });
    };
    EXPECT_EQ(acl(RecordBody().Hex({2, 0, 8, 0, 0, 0, 0, 0})), "") << "nobody";
    RecordBody entries;
    entries.Hex({2, 0, 36, 0, 2, 0, 0, 0}).Hex({1, 3, 20, 0}).U32(1);
    PutSid(entries, 7).Hex({5, 0, 8, 0}).U32(0xAABB);
    EXPECT_EQ(acl(entries), "(D;OICI;0x1;;;S-1-5-7)(05000800bbaa0000)");
    EXPECT_EQ(acl(RecordBody().Hex({2, 0, 12, 0, 1, 0, 0, 0, 0, 0, 3, 0})),
              "02000c000100000000000300")
        << "an entry shorter than its header";
    EXPECT_EQ(acl(RecordBody().Hex({2, 0, 12, 0, 9, 0, 0, 0, 5, 0, 4, 0})),
              "02000c000900000005000400")
        << "more entries than there are";

    const auto descriptor = [](const RecordBody& body) {
        return Written([&](TextSink& out) { PutDescriptor(out, body.Bytes()); });
    };
    EXPECT_EQ(descriptor(RecordBody().Hex({1, 0, 4, 0x80}).U32(0).U32(0).U32(0).U32(0)),
              "D:NO_ACCESS_CONTROL");
    EXPECT_EQ(descriptor(RecordBody().Hex({1, 0, 0, 0x80}).U32(99).U32(0).U32(0).U32(0)),
              "0100008063000000000000000000000000000000")
        << "an owner outside";
}

TEST(TerminalWidth, CountsColumnsNotBytes) {
    EXPECT_EQ(TerminalColumns("a\u00E9\u4E2D\u0301\U0001F511"), 6U);
    EXPECT_EQ(FirstColumns("\u4E2D\u4E2D", 3), "\u4E2D");
    EXPECT_EQ(LastColumns("x\u4E2Dy", 2), "y");
    EXPECT_EQ(LastColumns("xy", 9), "xy");
}

}  // namespace
}  // namespace zpregmon
