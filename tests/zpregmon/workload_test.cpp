#include "zpregmon/replay/workload.h"

#include "zpregmon/samples.h"
#include "zpregmon/temporary_file.h"

#include <gtest/gtest.h>
#include <zlib.h>

#include <fstream>
#include <sstream>

namespace zpregmon {
namespace {

Workload Parse(const std::string& text) {
    const TemporaryFile file(text);
    return Workload::Read(file.Path());
}

TEST(Workload, SampleHasEveryRecord) {
    const Workload workload = Workload::Read(kSample);
    EXPECT_EQ(workload.Records().size(), 60214U);
    EXPECT_EQ(workload.InitialKeys().size(), 6U);
    EXPECT_EQ(workload.InitialKeys()[0], u"\\Registry\\Machine");
    std::size_t bytes = 0;
    std::size_t creations = 0;
    for (const Record& record : workload.Records()) {
        bytes += record.op == Op::kSetValue ? record.dataSize : 0;
        creations += record.op == Op::kCreateKey ? 1 : 0;
    }
    EXPECT_EQ(bytes, 810754U);
    EXPECT_EQ(creations, 14941U);
}

TEST(Workload, FieldsComeInAnyOrderAndUnknownOnesAreIgnored) {
    const Workload workload = Parse(
        WorkloadHeader(R"("\\Registry\\A","\\Registry\\\u00e9\ud800")") + Start(32) +
        R"({"op":"create-key","later":{"a":[1,2]},"disposition":1,"class":"C","handle":4,)"
        R"("status":"40000000","attributes":448,"options":3,"access":33554432,"name":)"
        R"("\\Registry\\x\"\ud800y\ud83d\udd11","root":0,"tid":36,"pid":32,"t":7})"
        "\n"
        R"({"op":"brand-new","pid":"not a number","status":17})"
        "\n"
        R"( { "op" : "set-value" , "pid" : 32 , "tid":36,"handle":4,"name":"","type":4294967295,)"
        R"("data":"00ff10","data_size":5,"truncated":true,"status":"00000000" } )"
        "\n"
        R"({"op":"query-value","pid":32,"tid":36,"handle":4,"name":"n","status":"c0000034"})"
        "\n"
        R"({"op":"enum-key","pid":32,"tid":36,"handle":4,"index":3,"class":0,"size":10,"got":10,)"
        R"("result_name":"Tcpip","status":"00000000"})"
        "\n" +
        Exit(32));
    ASSERT_EQ(workload.InitialKeys().size(), 2U);
    EXPECT_EQ(workload.InitialKeys()[1], u"\\Registry\\\u00E9\xD800");
    ASSERT_EQ(workload.Records().size(), 6U);

    const Record& create = workload.Records()[1];
    EXPECT_EQ(create.line, 3U);
    EXPECT_EQ(create.name, u"\\Registry\\x\"\xD800y\U0001F511");
    EXPECT_EQ(create.className, u"C");
    EXPECT_EQ(create.status, 0x40000000);
    EXPECT_EQ(create.attributes, 448U);
    EXPECT_EQ(create.access, 33554432U);
    EXPECT_EQ(create.disposition, 1U);

    const Record& set = workload.Records()[2];
    EXPECT_EQ(set.line, 5U);
    EXPECT_EQ(set.type, 0xFFFFFFFFU);
    EXPECT_EQ(set.dataSize, 5U);
    ASSERT_EQ(set.bytes.size(), 3U);
    EXPECT_EQ(set.bytes[1], std::byte{0xFF});

    EXPECT_EQ(workload.Records()[3].status, static_cast<std::int32_t>(0xC0000034));
    EXPECT_EQ(workload.Records()[4].answer.name, u"Tcpip");
    EXPECT_EQ(workload.Records()[4].index, 3U);
}

struct BadWorkload {
    const char* name;
    std::string text;
    int line;
    const char* expected;  ///< a part of the message
};

class UnusableWorkload : public testing::TestWithParam<BadWorkload> {};

TEST_P(UnusableWorkload, IsAnErrorThatNamesFileLineAndWhatWasExpected) {
    const BadWorkload& bad = GetParam();
    const TemporaryFile file(bad.text);
    try {
        Workload::Read(file.Path());
        FAIL() << "was read";
    } catch (const WorkloadError& error) {
        const std::string message = error.what();
        EXPECT_EQ(message.find(file.Path() + ":" + std::to_string(bad.line) + ": "), 0U) << message;
        EXPECT_NE(message.find(bad.expected), std::string::npos) << message;
        EXPECT_EQ(message.find('\n'), std::string::npos) << message;
    }
}

/// A file whose third line is this one.
std::string WithLine(const std::string& line) {
    return WorkloadHeader() + Start(32) + line + "\n";
}

std::string Query(const std::string& fields) {
    return WithLine(R"({"op":"query-value","pid":32,"tid":36,"handle":4,"name":"n",)" + fields +
                    "}");
}

const BadWorkload kBadWorkloads[] = {
    {"Empty", "", 1, "expected a header"},
    {"NoJson", "hello\n", 1, "expected a JSON object"},
    {"NoHeader", Start(32), 1, "'format' is missing"},
    {"OtherFormat", R"({"format":"x","version":1,"initial_keys":[]})", 1, "registry-workload"},
    {"OtherVersion", R"({"format":"registry-workload","version":2,"initial_keys":[]})", 1,
     "expected version 1"},
    {"NoInitialKeys", R"({"format":"registry-workload","version":1})", 1, "initial_keys"},
    {"InitialKeysOfNumbers", R"({"format":"registry-workload","version":1,"initial_keys":[1]})", 1,
     "expected a string"},
    {"BlankLine", WithLine(""), 3, "expected a JSON object"},
    {"CutLine", WithLine(R"({"op":"close","pid":32,"ti)"), 3, "expected a JSON object"},
    {"ArrayLine", WithLine("[1]"), 3, "expected a JSON object"},
    {"TwoObjects", WithLine(Exit(32).substr(0, Exit(32).size() - 1) + " {}"), 3,
     "expected the line to end"},
    {"NoOp", WithLine(R"({"pid":32})"), 3, "'op' is missing"},
    {"OpNumber", WithLine(R"({"op":1})"), 3, "'op': expected a string"},
    {"FieldMissing", WithLine(R"({"op":"close","pid":32,"tid":36,"status":"00000000"})"), 3,
     "close without 'handle'"},
    {"AnswerMissing", Query(R"("status":"00000000","type":1,"size":2)"), 3, "without 'got'"},
    {"NegativeNumber", Query(R"("status":"00000000","type":-1,"size":2,"got":2)"), 3,
     "query-value, 'type': expected an unsigned number"},
    {"FractionalNumber", Query(R"("status":"00000000","type":1.5,"size":2,"got":2)"), 3, "'type'"},
    {"LargeNumber", Query(R"("status":"00000000","type":4294967296,"size":2,"got":2)"), 3,
     "up to 4294967295"},
    {"StatusNumber", Query(R"("status":0)"), 3, "8 lower-case hex digits"},
    {"StatusShort", Query(R"("status":"c000")"), 3, "8 lower-case hex digits"},
    {"StatusCapitals", Query(R"("status":"C0000034")"), 3, "8 lower-case hex digits"},
    {"UnknownEscape", WithLine(R"({"op":"mark","pid":0,"tid":0,"name":"\x"})"), 3, "JSON escape"},
    {"OddHex",
     WithLine(R"({"op":"set-value","pid":32,"tid":36,"handle":4,"name":"","type":1,"data":"abc",)"
              R"("status":"00000000"})"),
     3, "set-value, 'data': expected a string of lower-case hex digits"},
    {"DataSizeTooSmall",
     WithLine(R"({"op":"set-value","pid":32,"tid":36,"handle":4,"name":"","type":1,"data":"abcd",)"
              R"("data_size":1,"status":"00000000"})"),
     3, "'data_size'"},
    {"RawNonAscii", WithLine(R"({"op":"mark","pid":0,"tid":0,"name":"é"})"), 3, "ASCII"},
    {"ShortEscape", WithLine(R"({"op":"mark","pid":0,"tid":0,"name":"\u12"})"), 3, "JSON escape"},
    {"NoHexEscape", WithLine(R"({"op":"mark","pid":0,"tid":0,"name":"\u12xy"})"), 3, "JSON escape"},
    {"UnstartedProcess", WorkloadHeader() + Exit(32), 2, "has not started"},
    {"EndedProcess", WorkloadHeader() + Start(32) + Exit(32) + Exit(32), 4, "has ended"},
    {"IdTwice", WorkloadHeader() + Start(32) + Exit(32) + Start(32), 4, "was not used before"},
    {"IdOfTheSystem", WorkloadHeader() + Start(4), 2, "id 4"},
    {"IdNoMultiple", WorkloadHeader() + Start(33), 2, "multiple of 4"},
    {"UnstartedCreator", WorkloadHeader() + Start(32, 28), 2, "process 28 has not started"},
};

INSTANTIATE_TEST_SUITE_P(Workload, UnusableWorkload, testing::ValuesIn(kBadWorkloads),
                         [](const auto& test) { return std::string(test.param.name); });

std::string ReadBytes(const std::string& path) {
    std::ifstream file(path, std::ios::binary);
    std::ostringstream bytes;
    bytes << file.rdbuf();
    return bytes.str();
}

std::string MessageOf(const std::string& path) {
    try {
        Workload::Read(path);
    } catch (const WorkloadError& error) {
        return error.what();
    }
    return "was read";
}

TEST(Workload, FilesThatCannotBeReadAreNamed) {
    EXPECT_EQ(MessageOf("no/such/file"), "no/such/file: cannot open: No such file or directory");
    EXPECT_NE(MessageOf(testing::TempDir()).find("cannot read: Is a directory"), std::string::npos);
}

TEST(Workload, CutOrDamagedCompressionIsAnErrorAtItsLine) {
    std::string bytes = ReadBytes(kSample);
    const TemporaryFile cut(bytes.substr(0, bytes.size() / 2));
    const std::string message = MessageOf(cut.Path());
    EXPECT_NE(message.find("the file ends here"), std::string::npos) << message;
    EXPECT_NE(message.find(cut.Path() + ":"), std::string::npos) << message;

    bytes[bytes.size() / 2] = static_cast<char>(~bytes[bytes.size() / 2]);
    bytes[bytes.size() / 2 + 1] = static_cast<char>(~bytes[bytes.size() / 2 + 1]);
    const TemporaryFile damaged(bytes);
    EXPECT_NE(MessageOf(damaged.Path()), "was read");
}

}  // namespace
}  // namespace zpregmon
