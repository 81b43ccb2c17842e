#include "platform/kernel/text.h"

#include "bugcheck_matchers.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

namespace platform {
namespace {

TEST(Strings, InitializingMeasuresUpToTheLimit) {
    UNICODE_STRING text;
    RtlInitUnicodeString(&text, nullptr);
    EXPECT_EQ(text.Length, 0);
    EXPECT_EQ(text.MaximumLength, 0);
    RtlInitUnicodeString(&text, L"abc");
    EXPECT_EQ(text.Length, 6);
    EXPECT_EQ(text.MaximumLength, 8);
    std::vector<WCHAR> longest(40'000, L'x');
    longest.back() = 0;
    RtlInitUnicodeString(&text, longest.data());
    EXPECT_EQ(text.Length, 0xFFFC);
    EXPECT_EQ(text.MaximumLength, 0xFFFE);
}

/// A destination of `capacity` characters that shows every write around it.
struct Destination {
    explicit Destination(std::u16string_view text, USHORT capacity) {
        std::fill(std::begin(buffer), std::end(buffer), L'#');
        std::copy(text.begin(), text.end(), buffer);
        descriptor = {static_cast<USHORT>(text.size() * 2), static_cast<USHORT>(capacity * 2),
                      buffer};
    }
    std::u16string Memory() const {
        std::u16string memory;
        for (const WCHAR character : buffer) {
            memory += character == 0 ? u'0' : static_cast<char16_t>(character);
        }
        return memory;
    }
    WCHAR buffer[8];
    UNICODE_STRING descriptor;
};

TEST(Strings, CopyTruncatesAndAppendRefuses) {
    const struct {
        std::u16string_view source;
        USHORT capacity;
        std::u16string copied, appended;  // to "xy"
        NTSTATUS status;
    } rows[] = {
        {u"abc", 4, u"abc0####", u"xy######", STATUS_BUFFER_TOO_SMALL},
        {u"abc", 3, u"abc#####", u"xy######", STATUS_BUFFER_TOO_SMALL},
        {u"abc", 2, u"ab######", u"xy######", STATUS_BUFFER_TOO_SMALL},
        {u"abc", 5, u"abc0####", u"xyabc###", STATUS_SUCCESS},
        {u"abc", 6, u"abc0####", u"xyabc0##", STATUS_SUCCESS},
        {u"", 2, u"0y######", u"xy######", STATUS_SUCCESS},
    };
    for (const auto& row : rows) {
        const UNICODE_STRING source = Describe(row.source);
        Destination copied(u"xy", row.capacity);
        RtlCopyUnicodeString(&copied.descriptor, &source);
        // Unwritten places show what was there: "xy" where nothing was copied over.
        EXPECT_EQ(copied.Memory(), row.copied) << ToUtf8(row.source) << row.capacity;
        EXPECT_EQ(copied.descriptor.Length,
                  std::min<std::size_t>(row.source.size(), row.capacity) * 2);
        Destination appended(u"xy", row.capacity);
        EXPECT_EQ(RtlAppendUnicodeStringToString(&appended.descriptor, &source), row.status);
        EXPECT_EQ(appended.Memory(), row.appended) << ToUtf8(row.source) << row.capacity;
    }
    Destination cleared(u"xy", 4);
    RtlCopyUnicodeString(&cleared.descriptor, nullptr);
    EXPECT_EQ(cleared.descriptor.Length, 0);
    EXPECT_EQ(RtlAppendUnicodeStringToString(&cleared.descriptor, nullptr), STATUS_SUCCESS);
}

TEST(Strings, ComparisonsAgree) {
    const struct {
        std::u16string_view first, second;
        int exact, ignoringCase;  // signs
    } rows[] = {
        {u"", u"", 0, 0},
        {u"a", u"", 1, 1},
        {u"abc", u"ABC", 1, 0},
        {u"abc", u"abd", -1, -1},
        {u"ab", u"ABC", 1, -1},
        {u"Z", u"a", -1, 1},
        {u"_", u"a", -1, 1},
        {u"é", u"É", 1, 0},
        {u"жΩ", u"Жω", 1, 0},
        {u"\xFFFF", u"a", 1, 1},
        {u"\xD801", u"\xE000", -1, -1},
    };
    const auto sign = [](LONG value) { return (value > 0) - (value < 0); };
    for (const auto& row : rows) {
        const UNICODE_STRING first = Describe(row.first);
        const UNICODE_STRING second = Describe(row.second);
        const std::string what = ToUtf8(row.first) + " / " + ToUtf8(row.second);
        EXPECT_EQ(sign(RtlCompareUnicodeString(&first, &second, FALSE)), row.exact) << what;
        EXPECT_EQ(sign(RtlCompareUnicodeString(&second, &first, FALSE)), -row.exact) << what;
        EXPECT_EQ(sign(RtlCompareUnicodeString(&first, &second, TRUE)), row.ignoringCase) << what;
        EXPECT_EQ(RtlEqualUnicodeString(&first, &second, FALSE) != FALSE, row.exact == 0) << what;
        EXPECT_EQ(RtlEqualUnicodeString(&first, &second, TRUE) != FALSE, row.ignoringCase == 0)
            << what;
        if (row.ignoringCase == 0) {
            EXPECT_EQ(HashIgnoringCase(row.first), HashIgnoringCase(row.second)) << what;
        }
    }
}

TEST(Strings, UpperCaseMapsLettersOneToOne) {
    const std::pair<char16_t, char16_t> rows[] = {
        // clang-format off
        {u'a', u'A'}, {u'z', u'Z'}, {u'`', u'`'}, {u'{', u'{'}, {0xE9, 0xC9}, {0xF7, 0xF7},
        {0xFF, 0x178}, {0xDF, 0xDF}, {0xB5, 0xB5}, {0x131, 0x131}, {0x17F, 0x17F}, {0x101, 0x100},
        {0x17E, 0x17D}, {0x3B1, 0x391}, {0x3C2, 0x3A3}, {0x3C3, 0x3A3}, {0x3CE, 0x38F}, {0x436, 0x416},
        {0x45F, 0x40F}, {0x561, 0x531}, {0x1E01, 0x1E00}, {0xFF41, 0xFF21}, {0x4E00, 0x4E00},
        {0xD801, 0xD801},
        // clang-format on
    };
    for (const auto& [lower, upper] : rows)
        EXPECT_EQ(Upcase(lower), upper) << std::hex << unsigned{lower};
    for (unsigned i = 0; i < 0x10000; ++i) {
        const char16_t upper = Upcase(static_cast<char16_t>(i));
        ASSERT_EQ(Upcase(upper), upper) << std::hex << i;
    }
}

TEST(Strings, CaseInsensitiveFormsNeedPassiveLevel) {
    const UNICODE_STRING text = LiteralString(L"a");
    const KIRQL old = KfRaiseIrql(APC_LEVEL);
    EXPECT_EQ(RuleBrokenBy([&] { RtlCompareUnicodeString(&text, &text, TRUE); }),
              BrokenRule{Rule::kIrqlTooHigh});
    EXPECT_EQ(RuleBrokenBy([&] { RtlEqualUnicodeString(&text, &text, TRUE); }),
              BrokenRule{Rule::kIrqlTooHigh});
    EXPECT_TRUE(RtlEqualUnicodeString(&text, &text, FALSE));
    KeLowerIrql(old);
}

TEST(Text, Utf8AndUtf16AreInverse) {
    const struct {
        std::u16string_view wide;
        std::string_view narrow;
    } rows[] = {
        {u"", ""},
        {u"Registry", "Registry"},
        {u"é€", "\xC3\xA9\xE2\x82\xAC"},
        {u"😀", "\xF0\x9F\x98\x80"},
        {u"\xFFFF", "\xEF\xBF\xBF"},
    };
    for (const auto& row : rows) {
        EXPECT_EQ(ToUtf8(row.wide), row.narrow);
        EXPECT_EQ(ToUtf16(row.narrow), row.wide);
    }
    EXPECT_EQ(ToUtf8(u"a\xD800z\xDC00"), "a\xEF\xBF\xBDz\xEF\xBF\xBD");
    // Truncated, overlong, surrogate, too large: one replacement a byte.
    for (const std::string_view bad :
         {"\xC3", "\xC0\x80", "\xED\xA0\x80", "\xF4\x90\x80\x80", "\xFF", "\x80"}) {
        EXPECT_EQ(ToUtf16(bad), std::u16string(bad.size(), u'\xFFFD'));
    }
}

}  // namespace
}  // namespace platform
