#include "client/event_writer.h"

#include "client/made_event.h"
#include "client/scratch_file.h"

#include <gtest/gtest.h>
#include <signal.h>
#include <unistd.h>

#include <array>

namespace zpregmon {
namespace {

class NumberFormat final : public EventFormat {
public:
    void AppendHeading(TextBuffer& out) override { fmt::format_to(fmt::appender(out), "ids\n"); }
    void Append(const Event& event, TextBuffer& out) override {
        fmt::format_to(fmt::appender(out), "{}\n", event.ProcessId());
    }
};

MadeEvent Numbered(std::uint32_t number) {
    MadeEvent event;
    event.header.ProcessId = number;
    return event;
}

TEST(EventWriter, WritesEveryEventOnceAndInOrder) {
    constexpr std::uint32_t kEvents = 50'000;  // several pieces
    const ScratchFile file(std::tmpfile());
    EventWriter writer(std::make_unique<NumberFormat>(), file.get());
    std::string expected = "ids\n";
    for (std::uint32_t i = 0; i < kEvents; ++i) {
        writer.Write(Numbered(i));
        expected += std::to_string(i) + "\n";
    }
    EXPECT_EQ(writer.Flush(), OutputState::kOpen);
    std::rewind(file.get());
    std::string written(expected.size() + 1, '\0');
    written.resize(std::fread(written.data(), 1, written.size(), file.get()));
    EXPECT_EQ(written, expected);
}

TEST(EventWriter, SeesThatTheReaderIsGone) {
    signal(SIGPIPE, SIG_IGN);
    std::array<int, 2> ends;
    ASSERT_EQ(pipe(ends.data()), 0);
    const ScratchFile file(fdopen(ends[1], "wb"));
    EventWriter writer(std::make_unique<NumberFormat>(), file.get());
    close(ends[0]);
    EXPECT_EQ(writer.Flush(), OutputState::kReaderGone);
}

TEST(EventWriter, TellsWhyItCannotWrite) {
    const ScratchFile file(std::fopen("/dev/full", "wb"));
    ASSERT_TRUE(file);
    EventWriter writer(std::make_unique<NumberFormat>(), file.get());
    EXPECT_EQ(writer.Flush(), OutputState::kFailed);
    EXPECT_EQ(writer.Problem(), "No space left on device");
    writer.Write(Numbered(1));
    EXPECT_EQ(writer.Flush(), OutputState::kFailed) << "and stays so";
}

}  // namespace
}  // namespace zpregmon
