// The program itself, run as people run it: its exit status and what it says.
#include "zpregmon/temporary_file.h"

#include <gtest/gtest.h>
#include <sys/wait.h>

#include <algorithm>
#include <array>
#include <cstdio>
#include <filesystem>
#include <string>

namespace zpregmon {
namespace {

struct Finished {
    int status;
    std::string output;
};

/// The program lies beside the tests; a shell that does not find it ends with status 127.
std::string ProgramPath() {
    return (std::filesystem::read_symlink("/proc/self/exe").parent_path() / "zpregmon").string();
}

Finished RunShell(const std::string& command) {
    std::FILE* const pipe = popen(command.c_str(), "r");
    std::string output;
    std::array<char, 4096> piece;
    while (const std::size_t got = std::fread(piece.data(), 1, piece.size(), pipe)) {
        output.append(piece.data(), got);
    }
    const int status = pclose(pipe);
    return {WIFEXITED(status) ? WEXITSTATUS(status) : -1, output};
}

/// Runs the program and keeps what it says on standard error.
Finished Complaints(const std::string& arguments) {
    return RunShell("'" + ProgramPath() + "' " + arguments + " 2>&1 >/dev/null");
}

std::string SmallWorkload() {
    return WorkloadHeader() + Start(32) +
           R"({"op":"create-key","pid":32,"tid":36,"root":0,"name":"\\Registry\\Machine\\New",)"
           R"("access":0,"options":0,"attributes":64,"status":"00000000","handle":4,"class":"",)"
           R"("disposition":1})"
           "\n" +
           Exit(32);
}

TEST(Program, WrongUseIsOneLineAndStatus2) {
    struct Case {
        const char* arguments;
        const char* expected;
    };
    const Case cases[] = {
        {"replay", "workload is required"},
        {"replay x --bogus", "--bogus"},
        {"replay x --format xml", "--format"},
        {"replay x --operations Nothing", "'Nothing' is no operation, expected DeleteKey"},
        {"replay x --operations 0x400000", "expected a number up to 0x3fffff"},
        {"replay x --override everything", "expected 'trusted'"},
        {"replay x --buffers 0", "--buffers"},
        {"replay x --buffers 65", "--buffers"},
        {"replay x --capture-max -1", "--capture-max"},
        {"replay x --exempt ''", "not empty"},
        {"replay x --check --parallel", "excludes"},
        {"replay no/such/file", "no/such/file: cannot open: No such file or directory"},
        {"replay samples/wineboot.jsonl.gz -o /no/such/file", "/no/such/file: cannot write"},
        {"replay samples/wineboot.jsonl.gz --dump-file /no/such/file",
         "/no/such/file: cannot write"},
    };
    for (const Case& test : cases) {
        const Finished finished = Complaints(test.arguments);
        EXPECT_EQ(finished.status, 2) << test.arguments;
        EXPECT_NE(finished.output.find(test.expected), std::string::npos) << finished.output;
        EXPECT_EQ(std::count(finished.output.begin(), finished.output.end(), '\n'), 1)
            << finished.output;
    }
}

TEST(Program, SaysWhatItIs) {
    EXPECT_EQ(Complaints("").status, 2);
    EXPECT_EQ(Complaints("--help").status, 0);
    EXPECT_EQ(Complaints("replay --help").status, 0);
    const Finished version = RunShell("'" + ProgramPath() + "' --version");
    EXPECT_EQ(version.status, 0);
    EXPECT_EQ(version.output.find("zpregmon "), 0U);
}

TEST(Program, PrintsEventsAndASummary) {
    const TemporaryFile workload(SmallWorkload());
    const Finished events =
        RunShell("'" + ProgramPath() + "' replay " + workload.Path() +
                 " --operations CreateKeyEx --format jsonl --check --verify 2>/dev/null");
    EXPECT_EQ(events.status, 0);
    EXPECT_NE(events.output.find("\"pid\":32,\"image\":\"\\\\Device\\\\HarddiskVolume1\\\\windows"
                                 "\\\\p32.exe\""),
              std::string::npos)
        << events.output;
    EXPECT_NE(events.output.find("\"key\":\"\\\\Registry\\\\Machine\\\\New\"}\n"),
              std::string::npos);
    const Finished summary =
        Complaints("replay " + workload.Path() + " --operations CreateKeyEx --check");
    EXPECT_EQ(summary.status, 0);
    for (const char* line : {"operations replayed", "notifications", "key-created",
                             "buffers delivered", "reservations failed", "disagreements"}) {
        EXPECT_NE(summary.output.find(line), std::string::npos) << line << '\n' << summary.output;
    }
}

TEST(Program, DisagreementIsListedAndStatus1) {
    std::string text = SmallWorkload();
    text.replace(text.find("disposition\":1"), 14, "disposition\":2");
    const TemporaryFile workload(text);
    const Finished finished = Complaints("replay " + workload.Path() + " --check");
    EXPECT_EQ(finished.status, 1);
    EXPECT_NE(
        finished.output.find(workload.Path() + ":3: create-key: expected disposition 2, got 1"),
        std::string::npos)
        << finished.output;
}

TEST(Program, ReadsStandardInput) {
    const TemporaryFile workload(SmallWorkload());
    EXPECT_EQ(Complaints("replay - < " + workload.Path()).status, 0);
}

TEST(Program, EndsQuietlyWhenNobodyReads) {
    const TemporaryFile complaints;
    const Finished finished =
        RunShell("bash -c 'set -o pipefail; \"" + ProgramPath() +
                 "\" replay samples/wineboot.jsonl.gz --operations CreateKeyEx 2>" +
                 complaints.Path() + " | head -1'");
    EXPECT_EQ(finished.status, 0);
    EXPECT_EQ(finished.output.find("TIME "), 0U) << finished.output;
    EXPECT_EQ(std::filesystem::file_size(complaints.Path()), 0U);
}

TEST(Program, FullDiskIsSaidAndStatus1) {
    const Finished finished = Complaints("replay samples/wineboot.jsonl.gz -o /dev/full");
    EXPECT_EQ(finished.status, 1);
    EXPECT_NE(finished.output.find("/dev/full: cannot write: No space left on device"),
              std::string::npos)
        << finished.output;
}

}  // namespace
}  // namespace zpregmon
