// The commands that read dump files, run on what a replay left.
#include "zpregmon/program.h"
#include "zpregmon/temporary_file.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cstdio>
#include <filesystem>
#include <sstream>
#include <string_view>
#include <vector>

namespace zpregmon {
namespace {

std::vector<std::string> Lines(const std::string& text) {
    std::istringstream stream(text);
    std::vector<std::string> lines;
    for (std::string line; std::getline(stream, line);) {
        lines.push_back(line);
    }
    return lines;
}

/// A replay with everything recorded; what is in the buffers at its end is in the dump file, too.
class DumpCommands : public testing::Test {
protected:
    static void SetUpTestSuite() {
        dump_ = new TemporaryFile;
        const Finished replayed =
            RunShell("'" + ProgramPath() +
                     "' replay samples/wineboot.jsonl.gz --operations 0x3fffff --report-original "
                     "--format jsonl --dump-file " +
                     dump_->Path() + " 2>/dev/null");
        ASSERT_EQ(replayed.status, 0);
        events_ = new std::vector<std::string>(Lines(replayed.output));
    }
    static void TearDownTestSuite() {
        delete dump_;
        delete events_;
        dump_ = nullptr;
        events_ = nullptr;
    }

    static Finished Run(const std::string& arguments) {
        return RunShell("'" + ProgramPath() + "' " + arguments);
    }
    static std::string Dump() { return dump_->Path(); }
    /// The client's events of which dump files know everything: not the process's image.
    static std::vector<std::string> ClientEvents() {
        constexpr std::string_view kImage = ",\"image\":\"";
        std::vector<std::string> events = *events_;
        for (std::string& event : events) {
            if (const std::size_t start = event.find(kImage); start != std::string::npos) {
                const std::size_t end = event.find('"', start + kImage.size()) + 1;
                event.erase(start, end - start);
            }
        }
        return events;
    }

private:
    static TemporaryFile* dump_;
    static std::vector<std::string>* events_;
};
TemporaryFile* DumpCommands::dump_ = nullptr;
std::vector<std::string>* DumpCommands::events_ = nullptr;

TEST_F(DumpCommands, DecodePrintsWhatTheClientGot) {
    const Finished decoded = Run("decode -f jsonl " + Dump());
    EXPECT_EQ(decoded.status, 0);
    const std::vector<std::string> dumped = Lines(decoded.output);
    const std::vector<std::string> events = ClientEvents();
    ASSERT_GT(dumped.size(), 100U);
    ASSERT_LE(dumped.size(), events.size());
    EXPECT_TRUE(std::equal(dumped.begin(), dumped.end(),
                           events.end() - static_cast<std::ptrdiff_t>(dumped.size())));
    EXPECT_EQ(Run("decode --format jsonl - < " + Dump()).output, decoded.output);
    EXPECT_EQ(Run("decode -f jsonl " + Dump() + " " + Dump()).output,
              decoded.output + decoded.output);
}

TEST_F(DumpCommands, DamageComesBehindTheEventsBeforeIt) {
    const auto whole = Lines(Run("decode -f jsonl " + Dump()).output);
    const TemporaryFile cut;
    const std::string size = std::to_string(std::filesystem::file_size(Dump()) - 5000);
    RunShell("head -c " + size + " " + Dump() + " > " + cut.Path());
    const Finished decoded = Run("decode -f jsonl " + cut.Path() + " 2>/dev/null");
    EXPECT_EQ(decoded.status, 1);
    const auto events = Lines(decoded.output);
    ASSERT_LT(events.size(), whole.size());
    ASSERT_GT(events.size() + 100, whole.size()) << "5000 bytes hold fewer events";
    EXPECT_TRUE(std::equal(events.begin(), events.end(), whole.begin()));
    for (const char* command : {"decode ", "summary "}) {
        const Finished complaints = Complaints(command + cut.Path());
        EXPECT_EQ(complaints.status, 1);
        EXPECT_EQ(complaints.output.find("zpregmon: " + cut.Path() + ": damaged at offset " + size +
                                         ": the file ends"),
                  0U)
            << complaints.output;
        EXPECT_EQ(Lines(complaints.output).size(), 1U);
    }
    EXPECT_EQ(Complaints("decode README.md").status, 1);
}

TEST_F(DumpCommands, FiltersChooseEvents) {
    const auto whole = Lines(Run("decode -f jsonl " + Dump()).output);
    const auto isSet = [](const std::string& event) {
        return event.find("\"record\":\"value-set\"") != std::string::npos;
    };
    const auto sets = static_cast<std::size_t>(std::count_if(whole.begin(), whole.end(), isSet));
    ASSERT_GT(sets, 0U);
    ASSERT_LT(sets, whole.size());
    EXPECT_EQ(Lines(Run("decode -f jsonl --include op=SetValueKey " + Dump()).output).size(), sets);
    EXPECT_EQ(Lines(Run("decode -f jsonl --exclude op=value-set " + Dump()).output).size(),
              whole.size() - sets);
    const Finished summary = Run("summary --include op=value-set --include 'key=HK*' " + Dump());
    EXPECT_EQ(summary.status, 0);
    EXPECT_EQ(std::stoul(summary.output), sets);
    EXPECT_NE(summary.output.find("MOST CHANGED VALUES"), std::string::npos);
}

TEST_F(DumpCommands, OutputThatCannotBeWrittenIsOneLine) {
    for (const char* command : {"decode ", "summary "}) {
        const Finished full = Complaints(command + Dump() + " -o /dev/full");
        EXPECT_EQ(full.status, 1);
        EXPECT_EQ(full.output, "zpregmon: /dev/full: cannot write: No space left on device\n");
        const Finished quiet = RunShell("bash -c 'set -o pipefail; \"" + ProgramPath() + "\" " +
                                        command + Dump() + " 2>&1 | head -1 | wc -l'");
        EXPECT_EQ(quiet.status, 0);
        EXPECT_EQ(quiet.output, "1\n");
    }
}

/// On a terminal, which `script` makes: colour unless it is not wanted, lines as wide as it is.
TEST_F(DumpCommands, HeedsTheTerminal) {
    const auto onTerminal = [](const std::string& environment) {
        return RunShell(environment + " script -qec \"stty cols 100; '" + ProgramPath() +
                        "' decode --include op=value-set " + Dump() + "\" /dev/null")
            .output;
    };
    const std::string coloured = onTerminal("NO_COLOR=");
    const std::string plain = onTerminal("NO_COLOR=1");
    EXPECT_NE(coloured.find("\x1b[33mvalue-set\x1b[0m"), std::string::npos) << coloured;
    EXPECT_EQ(plain.find('\x1b'), std::string::npos);
    for (const std::string& line : Lines(plain)) {
        const auto isStart = [](char c) { return (static_cast<unsigned char>(c) & 0xC0) != 0x80; };
        EXPECT_LE(std::count_if(line.begin(), line.end(), isStart), 100 + 1) << line;  // and a CR
    }
    EXPECT_EQ(Run("decode " + Dump()).output.find('\x1b'), std::string::npos);
}

TEST_F(DumpCommands, FormatsAreListed) {
    const Finished listed = Run("formats");
    EXPECT_EQ(listed.status, 0);
    for (const std::string& line : Lines(listed.output)) {
        const std::string name = line.substr(0, line.find(' '));
        EXPECT_EQ(Run("decode --format " + name + " " + Dump() + " >/dev/null").status, 0) << name;
    }
    EXPECT_EQ(Lines(listed.output).size(), 5U);
}

}  // namespace
}  // namespace zpregmon
