#include "zpregmon/replay/summary.h"

#include "zpregmon/session/session_summary.h"

namespace zpregmon {

namespace {

constexpr std::array<const char*, kDifferenceCount> kDifferenceTexts = {
    "creating a key that exists: STATUS_SUCCESS, recorded STATUS_OBJECT_NAME_EXISTS",
    "opening a key: STATUS_SUCCESS, recorded STATUS_PREDEFINED_HANDLE",
    "creating a key with an empty name: opened, recorded as created",
    "an answer that does not fit: STATUS_BUFFER_OVERFLOW, recorded STATUS_SUCCESS",
    "values enumerated in order of creation, recorded in order of name",
};

void DescribeRest(std::uint64_t all, std::size_t listed, Lines& lines) {
    if (all > listed) {
        lines = fmt::format_to(lines, "and {} more\n", all - listed);
    }
}

void DescribeCheck(const CheckResult& check, const std::string& path, Lines& lines) {
    AddCount(lines, "results compared", check.compared);
    for (std::size_t i = 0; i < kDifferenceCount; ++i) {
        if (check.differences[i] != 0) {
            lines = fmt::format_to(lines, "  as Windows: {:>8} x {}\n", check.differences[i],
                                   kDifferenceTexts[i]);
        }
    }
    if (check.openEnumerations != 0) {
        lines = fmt::format_to(lines,
                               "  not compared: {:>6} x values of an enumeration that "
                               "stopped early\n",
                               check.openEnumerations);
    }
    AddCount(lines, "disagreements", check.disagreements);
    for (const Disagreement& disagreement : check.first) {
        lines = fmt::format_to(lines, "{}:{}: {}: {}\n", path, disagreement.line,
                               OpName(disagreement.op), disagreement.what);
    }
    DescribeRest(check.disagreements, check.first.size(), lines);
}

/// Whether records of queries hold what was answered.
void DescribeAnswers(const LedgerResult& answers, const std::string& path, Lines& lines) {
    if (answers.compared == 0 && answers.disagreements == 0) {
        return;
    }
    AddCount(lines, "answers compared", answers.compared);
    AddCount(lines, "answers that differ", answers.disagreements);
    for (const std::string& what : answers.first) {
        lines = fmt::format_to(lines, "{}: {}\n", path, what);
    }
    DescribeRest(answers.disagreements, answers.first.size(), lines);
}

}  // namespace

std::string DescribeReplay(const MonitoredReplayResult& result, const std::string& workloadPath,
                           bool checked) {
    std::string text;
    Lines lines(text);
    AddCount(lines, "operations replayed", result.replay.operations);
    AddCount(lines, "processes", result.replay.processes);
    AddCount(lines, "notifications", result.driver.notifications);
    DescribeEvents(result, lines);
    AddCount(lines, "buffers delivered", result.session.buffersDelivered);
    AddCount(lines, "reservations failed", result.driver.reservationsFailed);
    DescribeLosses(result, result.session, lines);
    if (checked) {
        DescribeCheck(result.replay.check, workloadPath, lines);
        DescribeAnswers(result.answers, workloadPath, lines);
    }
    text += result.statistics;
    AddCount(lines, "elapsed", fmt::format("{:.3f} s", result.elapsed.count()));
    return text;
}

}  // namespace zpregmon
