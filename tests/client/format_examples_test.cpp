// The formats against the stored examples, which stand in docs/formats.md.
#include "client/every_kind.h"
#include "client/format.h"
#include "client/made_event.h"
#include "client/record_decoder.h"
#include "client/terminal_width.h"

#include <gtest/gtest.h>
#include <simdjson.h>

#include <fstream>
#include <iterator>
#include <sstream>

namespace zpregmon {
namespace {

std::string Print(const NamedFormat& named, const std::vector<std::byte>& image = EveryKind()) {
    const OneImage images(u"\\Device\\HarddiskVolume1\\Windows\\regedit.exe");
    FormatSettings settings;
    settings.images = &images;
    const auto format = named.make(settings);
    TextBuffer out;
    format->AppendHeading(out);
    RecordDecoder decoder(image);
    for (Event event; decoder.Next(event);) {
        format->Append(event, out);
    }
    EXPECT_FALSE(decoder.Error());
    return fmt::to_string(out);
}

std::vector<std::string> Lines(const std::string& text) {
    std::istringstream stream(text);
    std::vector<std::string> lines;
    for (std::string line; std::getline(stream, line);) {
        lines.push_back(line);
    }
    return lines;
}

/// The block of the document that is fenced with the format's name.
std::string StoredExample(std::string_view format) {
    std::ifstream file("docs/formats.md", std::ios::binary);
    const std::string text{std::istreambuf_iterator<char>(file), {}};
    const std::string fence = fmt::format("```{}\n", format);
    const std::size_t start = text.find(fence);
    if (start == std::string::npos) {
        return {};
    }
    const std::size_t end = text.find("```\n", start + fence.size());
    return text.substr(start + fence.size(), end - start - fence.size());
}

TEST(FormatExamples, AreWhatEachFormatPrints) {
    for (const NamedFormat& format : Formats()) {
        EXPECT_EQ(Print(format), StoredExample(format.name)) << format.name;
    }
}

using simdjson::dom::element;

std::string_view Text(element object, const char* pointer) {
    return object.at_pointer(pointer).get_string();
}

/// What the formats write is JSON for another parser, too, and says what the records say.
TEST(FormatExamples, AreSoundJson) {
    simdjson::dom::parser parser;
    const auto jsonl = Lines(Print(*FindFormat("jsonl")));
    ASSERT_EQ(jsonl.size(), 24U);
    for (const std::string& line : jsonl) {
        const element event = parser.parse(line);
        EXPECT_EQ(Text(event, "/key"),
                  "\\REGISTRY\\MACHINE\\SYSTEM\\ControlSet001\\Services\\Dhcp");
        EXPECT_EQ(event["pid"].get_uint64().value(), 32U);
        EXPECT_EQ(Text(event, "/operations/1"), "CreateKeyEx");
    }
    EXPECT_EQ(Text(parser.parse(jsonl[0]), "/previous/data"), "03000000");
    EXPECT_TRUE(parser.parse(jsonl[7]).at_pointer("/values/2/value").value().is_null());
    EXPECT_EQ(Text(parser.parse(jsonl[22]), "/owner/new"), "S-1-5-19");

    // One line for every value that was queried: two more than events.
    const auto ocsf = Lines(Print(*FindFormat("ocsf")));
    ASSERT_EQ(ocsf.size(), 26U);
    for (const std::string& line : ocsf) {
        const element event = parser.parse(line);
        const std::uint64_t classId = event["class_uid"].get_uint64();
        const std::uint64_t activity = event["activity_id"].get_uint64();
        EXPECT_TRUE(classId == 201001 || classId == 201002);
        EXPECT_EQ(event["type_uid"].get_uint64().value(), classId * 100 + activity);
        EXPECT_EQ(event["time"].get_int64().value(), 1795376571123);
        for (const char* required :
             {"category_uid", "metadata", "severity_id", "actor", "device"}) {
            EXPECT_FALSE(event[required].error()) << required;
        }
        EXPECT_FALSE(event[classId == 201001 ? "reg_key" : "reg_value"].error());
    }
    EXPECT_EQ(Text(parser.parse(ocsf[2]), "/reg_value/data/0"), "a\"");

    const auto sysmon = Lines(Print(*FindFormat("sysmon")));
    ASSERT_EQ(sysmon.size(), 8U);
    EXPECT_EQ(Text(parser.parse(sysmon[0]), "/Details"), "DWORD (0x00000002)");
    EXPECT_EQ(Text(parser.parse(sysmon[5]), "/NewName"),
              "HKLM\\SYSTEM\\CurrentControlSet\\Services\\Dhcp2");
}

/// Data of which a part or all is missing is not told as if it were all.
TEST(FormatExamples, TellWhatOfTheDataIsMissing) {
    struct Case {
        std::uint32_t type;
        std::uint32_t size;
        std::u16string_view captured;
        const char* sysmon;
        const char* ocsf;
    };
    using namespace std::string_view_literals;
    const Case cases[] = {
        {1, 28, u"", "(not captured, 28 bytes)", R"("type_id":10},"unmapped":{"size":28}})"},
        {1, 28, u"Mount Ma", "Mount Ma...", R"("data":"Mount Ma"},"unmapped":{"size":28}})"},
        {2, 4, u"\0"sv, "...", R"("data":""},"unmapped":{"size":4}})"},
        {1, 2, u"\0"sv, "(Empty)", R"("data":""}})"},
        {1, 0, u"", "(Empty)", R"("data":""}})"},
        {4, 4, u"", "(not captured, 4 bytes)", R"("type_id":2},"unmapped":{"size":4}})"},
        {4, 4, u"\1", "(not captured, 4 bytes)", R"("data":"0100"},"unmapped":{"size":4}})"},
        {11, 8, u"\1\0"sv, "(not captured, 8 bytes)",
         R"("data":"01000000"},"unmapped":{"size":8}})"},
        {3, 4, u"", "Binary Data", R"("type_id":1},"unmapped":{"size":4}})"},
    };
    for (const auto& [type, size, captured, sysmon, ocsf] : cases) {
        const auto length = static_cast<std::uint32_t>(captured.size() * sizeof(char16_t));
        const RecordBody set = RecordBody().U32(68 + length).U32(type).U32(size).U32(length);
        const auto image =
            RecordChain(kExampleKey)
                .Add(zpregflt::RecordType::kValueSet,
                     RecordBody(set).U32(0).U32(0).U32(0).Text(captured).TextAndZero(u"v"))
                .Bytes();
        simdjson::dom::parser parser;
        EXPECT_EQ(Text(parser.parse(Print(*FindFormat("sysmon"), image)), "/Details"), sysmon);
        const std::string line = Print(*FindFormat("ocsf"), image);
        EXPECT_TRUE(line.ends_with(std::string(ocsf) + "\n")) << line;
    }
    const auto image =
        RecordChain(kExampleKey)
            .Add(zpregflt::RecordType::kValueSet,
                 RecordBody().U32(68).U32(4).U32(4).U32(0).U32(72).U32(6).U32(0).TextAndZero(u"v"))
            .Bytes();
    EXPECT_NE(
        Print(*FindFormat("ocsf"), image).find(R"(,"unmapped":{"size":4,"previous":{"size":6}}})"),
        std::string::npos);
}

/// Without what colours text.
std::string PlainText(std::string text) {
    for (std::size_t at = 0; (at = text.find('\x1b')) != std::string::npos;) {
        text.erase(at, text.find('m', at) + 1 - at);
    }
    return text;
}

/// The table on terminals of several widths: never wider, colours end, and where there is room for
/// them roots and ends of keys are visible, and as much of the details.
TEST(Table, FitsTheTerminal) {
    const OneImage images(u"\\Device\\HarddiskVolume1\\Windows\\SearchProtocolHost.exe");
    for (const std::size_t columns : {1U, 20U, 40U, 60U, 74U, 80U, 100U, 119U, 132U, 200U}) {
        FormatSettings settings;
        settings.columns = columns;
        settings.colour = true;
        settings.images = &images;
        const auto format = MakeTableFormat(settings);
        TextBuffer out;
        format->AppendHeading(out);
        const std::vector<std::byte> image = EveryKind();
        RecordDecoder decoder(image);
        for (Event event; decoder.Next(event);) {
            format->Append(event, out);
        }
        const auto lines = Lines(fmt::to_string(out));
        ASSERT_EQ(lines.size(), 25U);
        for (const std::string& line : lines) {
            const std::string text = PlainText(line);
            EXPECT_LE(TerminalColumns(text), columns) << text;
            EXPECT_TRUE(text == line || line.find("\x1b[0m") != std::string::npos) << line;
            EXPECT_TRUE(columns < 74 || &line == lines.data() ||
                        text.find("Dhcp") != std::string::npos)
                << text;
        }
        if (columns >= 80) {
            EXPECT_NE(lines[7].find("Start = REG_D"), std::string::npos) << lines[7];
            EXPECT_TRUE(lines[20].ends_with("ControlSet001\\Services\\Dhcp") || columns < 100)
                << lines[20];
        }
    }
}

TEST(Table, ColoursOperationsOnlyWhenTold) {
    const auto chain = RecordChain(u"x").Add(zpregflt::RecordType::kKeyDeleted);
    for (const bool colour : {false, true}) {
        FormatSettings settings;
        settings.colour = colour;
        RecordDecoder decoder(chain.Bytes());
        Event event;
        ASSERT_TRUE(decoder.Next(event));
        TextBuffer out;
        MakeTableFormat(settings)->Append(event, out);
        EXPECT_EQ(fmt::to_string(out).find("\x1b[31mkey-deleted\x1b[0m") != std::string::npos,
                  colour);
    }
}

}  // namespace
}  // namespace zpregmon
