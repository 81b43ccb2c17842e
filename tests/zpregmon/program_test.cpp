// The program itself, run as people run it: its exit status and what it says.
#include "zpregmon/program.h"
#include "client/vocabulary.h"
#include "zpregmon/temporary_file.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cstdint>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <set>
#include <string>
#include <vector>

namespace zpregmon {
namespace {

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
        {"replay x --include key", "'key' is no filter, expected op=, key="},
        {"replay x --exclude op=Nothing", "'Nothing' is no operation"},
        {"decode", "dump is required"},
        {"decode no/such/file README.md", "no/such/file: cannot open: No such file or directory"},
        {"decode .", ".: cannot read: it is a directory"},
        {"decode README.md -o ./README.md", "README.md: cannot write: the command line names"},
        {"replay README.md -o ./README.md", "README.md: cannot write: the command line names"},
        {"replay samples/wineboot.jsonl.gz --dump-file samples/wineboot.jsonl.gz",
         "wineboot.jsonl.gz: cannot write: the command line names"},
        {"replay samples/wineboot.jsonl.gz --dump-file -", "-: cannot write: expected a regular"},
        {"replay samples/wineboot.jsonl.gz --dump-file /dev/full", "expected a regular file"},
        {"replay samples/wineboot.jsonl.gz --capture-max abc", "--capture-max"},
        {"decode README.md formats", "formats: cannot open"},
        {"dekode README.md", "expected one of replay, decode, summary, formats"},
        {"decode README.md -o /no/such/file", "/no/such/file: cannot write"},
        {"summary README.md --top 0", "--top"},
        {"nonsense", "nonsense"},
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

std::string ReadFile(const char* path) {
    std::ifstream file(path);
    return {std::istreambuf_iterator<char>(file), {}};
}

/// The long options of a command, as its help says.
std::vector<std::string> LongOptions(const std::string& command) {
    const std::string help = RunShell("'" + ProgramPath() + "' " + command + " --help").output;
    std::vector<std::string> options;
    for (std::size_t at = help.find("--"); at != std::string::npos; at = help.find("--", at + 2)) {
        const std::size_t end = help.find_first_not_of("-abcdefghijklmnopqrstuvwxyz", at);
        options.push_back(help.substr(at, end - at));
    }
    return options;
}

/// A key of readline: every completion, instead of the one that Tab finds.
constexpr const char* kEvery = "\033*";

/// The arguments in angle brackets that the program is given when these keys, Tab among them, are
/// typed after its name, in a folder with a file `my file.dump` and a folder `sub`. An interactive
/// bash reads keys from any file; a session of its own keeps it from taking the terminal.
std::string Typed(const std::string& keys) {
    const TemporaryFile typed(R"(source "$COMPLETION"; zpregmon() { printf '<%s>' "$@" >&3; })"
                              "\nzpregmon " +
                              keys + "\n");
    return RunShell(
               "COMPLETION=$PWD/share/bash-completion/completions/zpregmon; export COMPLETION;"
               "folder=$(mktemp -d) && cd $folder && mkdir sub && touch 'my file.dump' &&"
               " LC_ALL=C HISTFILE= INPUTRC=/dev/null TERM=dumb timeout 60 setsid -w "
               "bash --norc --noprofile -i <" +
               typed.Path() + " 3>&1 >/dev/null 2>&1; rm -r $folder")
        .output;
}

TEST(Program, DocumentsAndCompletesEveryOption) {
    std::string manual = ReadFile("docs/zpregmon.1");
    manual.erase(std::remove(manual.begin(), manual.end(), '\\'), manual.end());
    for (const std::string command : {"replay", "decode", "summary", "formats"}) {
        const std::string completed = Typed(command + " --" + kEvery);
        const auto options = LongOptions(command);
        EXPECT_FALSE(options.empty());
        for (const std::string& option : options) {
            EXPECT_NE(completed.find('<' + option + '>'), std::string::npos) << option;
            EXPECT_NE(manual.find(option), std::string::npos) << option;
        }
        EXPECT_NE(manual.find(command), std::string::npos);
    }
}

TEST(Program, CompletesWhatIsTyped) {
    struct Case {
        std::string keys;
        const char* expected;
    };
    const Case cases[] = {
        {"de\tsu\t.", "<decode><sub/.>"},
        {"decode my\t--fo\tjs\t", "<decode><my file.dump><--format><jsonl>"},
        {"decode \"my f\t", "<decode><my file.dump>"},
        {"decode my\\ file.dump su\t", "<decode><my file.dump><sub/>"},
        {"decode -o su\t.", "<decode><-o><sub/.>"},
        {"decode --output=my\tsu\t", "<decode><--output=my file.dump><sub/>"},
        {"replay --dump-file my\t", "<replay><--dump-file><my file.dump>"},
        {"replay --operations su\t", "<replay><--operations><su>"},
        {"formats su\t", "<formats><su>"},
        {"decode --format=js\t", "<decode><--format=jsonl>"},
        {std::string("decode --format ") + kEvery,
         "<decode><--format><csv><jsonl><ocsf><sysmon><table>"},
        {"decode --format=jsonl --include v\tx", "<decode><--format=jsonl><--include><value=x>"},
        {"summary --include op=hive-l\tsu\t", "<summary><--include><op=hive-loaded><sub/>"},
        {"summary --exclude=op=key-created,hive-l\t",
         "<summary><--exclude=op=key-created,hive-loaded>"},
        {"decode --include key=su\t", "<decode><--include><key=su>"},
        {"decode --include value=\t", "<decode><--include><value=>"},
        {"decode --include value= su\t", "<decode><--include><value=><sub/>"},
        {"decode --exclude pid=su\t", "<decode><--exclude><pid=su>"},
        {"decode --exclude image=su\t", "<decode><--exclude><image=su>"},
        {"replay --override trusted,e\t", "<replay><--override><trusted,exemptions>"},
    };
    for (const Case& test : cases) {
        EXPECT_EQ(Typed(test.keys), test.expected) << test.keys;
    }
}

TEST(Program, CompletesTheKindsOfFilters) {
    std::set<std::string> kinds;
    for (std::uint32_t type = 1; type <= zpregflt::kLastRecordType; ++type) {
        kinds.emplace(RecordName(static_cast<zpregflt::RecordType>(type)));
    }
    std::string expected;
    for (const std::string& kind : kinds) {
        expected += (expected.empty() ? "<decode><--include><op=" : "<") + kind + '>';
    }
    EXPECT_EQ(Typed(std::string("decode --include op=") + kEvery), expected);
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
        Complaints("replay " + workload.Path() + " --operations CreateKeyEx --check --stats");
    EXPECT_EQ(summary.status, 0);
    for (const char* line :
         {"operations replayed", "notifications", "key-created", "buffers delivered",
          "reservations failed", "disagreements",
          "RegNtPostCreateKeyEx                           1           1           0           0\n",
          "Reservations                                Boot      Normal    Shutdown\n"}) {
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

/// The pipe's reader takes the first line only once the interruption is on its way, so that the
/// replay cannot have come to its end.
TEST(Program, InterruptionEndsAReplayWithItsSummary) {
    const TemporaryFile complaints;
    const TemporaryFile pipe;
    const Finished finished = RunShell(
        "bash -c 'rm " + pipe.Path() + "; mkfifo " + pipe.Path() + "; \"" + ProgramPath() +
        "\" replay samples/wineboot.jsonl.gz --operations 0x3fffff -o " + pipe.Path() + " 2>" +
        complaints.Path() + " & exec 3<" + pipe.Path() +
        "; read -r line <&3; kill -INT $!; cat <&3 >/dev/null; wait $!; echo status $?; grep \"^"
        "operations replayed\" " +
        complaints.Path() + "'");
    EXPECT_EQ(finished.output.find("status 0\noperations replayed"), 0U) << finished.output;
    const std::size_t number = finished.output.find_first_of("123456789", 30);
    EXPECT_LT(std::stoul(finished.output.substr(number)), 60000U) << "the whole workload";
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
    const TemporaryFile dump;
    const Finished cut = RunShell("ulimit -f 8; trap '' XFSZ; '" + ProgramPath() +
                                  "' replay samples/wineboot.jsonl.gz -o /dev/null --dump-file " +
                                  dump.Path() + " 2>&1 >/dev/null");
    EXPECT_EQ(cut.status, 1);
    EXPECT_NE(cut.output.find("the dump could not be written whole"), std::string::npos)
        << cut.output;
    for (const char* arguments : {"formats", "--help", "--version"}) {
        const Finished full = RunShell("'" + ProgramPath() + "' " + arguments + " 2>&1 >/dev/full");
        EXPECT_EQ(full.status, 1) << arguments;
        EXPECT_EQ(full.output,
                  "zpregmon: standard output: cannot write: No space left on device\n");
    }
}

}  // namespace
}  // namespace zpregmon
