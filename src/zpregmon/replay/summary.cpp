#include "zpregmon/replay/summary.h"

#include "client/vocabulary.h"

#include <fmt/format.h>

#include <iterator>

namespace zpregmon {

namespace {

using Lines = std::back_insert_iterator<std::string>;

constexpr std::array<const char*, kDifferenceCount> kDifferenceTexts = {
    "creating a key that exists: STATUS_SUCCESS, recorded STATUS_OBJECT_NAME_EXISTS",
    "opening a key: STATUS_SUCCESS, recorded STATUS_PREDEFINED_HANDLE",
    "creating a key with an empty name: opened, recorded as created",
    "an answer that does not fit: STATUS_BUFFER_OVERFLOW, recorded STATUS_SUCCESS",
    "values enumerated in order of creation, recorded in order of name",
};

template <typename Number>
void AddCount(Lines& lines, std::string_view what, Number count) {
    lines = fmt::format_to(lines, "{:<22}{:>12}\n", what, count);
}

void DescribePassedOver(const ReplayResult& replay, Lines& lines) {
    for (std::size_t op = 0; op < kOpCount; ++op) {
        if (replay.passedOver[op] != 0 && static_cast<Op>(op) != Op::kMark) {
            lines = fmt::format_to(lines, "passed over           {:>12} {}: no such call here\n",
                                   replay.passedOver[op], OpName(static_cast<Op>(op)));
        }
    }
}

void DescribeEvents(const MonitoredReplayResult& result, Lines& lines) {
    AddCount(lines, "events", result.events);
    for (std::uint32_t type = 1; type <= zpregflt::kLastRecordType; ++type) {
        if (result.eventsByType[type] != 0) {
            const auto name = RecordName(static_cast<zpregflt::RecordType>(type));
            AddCount(lines, fmt::format("  {}", name), result.eventsByType[type]);
        }
    }
}

void DescribeDelivery(const MonitoredReplayResult& result, Lines& lines) {
    AddCount(lines, "buffers delivered", result.session.buffersDelivered);
    AddCount(lines, "reservations failed", result.driver.reservationsFailed);
    if (result.damagedBuffers != 0) {
        AddCount(lines, "damaged buffers", result.damagedBuffers);
        lines = fmt::format_to(lines, "  the first at offset {}: {}\n", result.firstDamage->offset,
                               result.firstDamage->what);
    }
    if (result.session.buffersLost != 0) {
        lines = fmt::format_to(lines, "{} buffers were refused, the last with status {:08x}\n",
                               result.session.buffersLost,
                               static_cast<std::uint32_t>(result.session.lastFailure));
    }
}

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
    DescribePassedOver(result.replay, lines);
    AddCount(lines, "processes", result.replay.processes);
    AddCount(lines, "notifications", result.driver.notifications);
    DescribeEvents(result, lines);
    DescribeDelivery(result, lines);
    if (checked) {
        DescribeCheck(result.replay.check, workloadPath, lines);
        DescribeAnswers(result.answers, workloadPath, lines);
    }
    text += result.statistics;
    AddCount(lines, "elapsed", fmt::format("{:.3f} s", result.elapsed.count()));
    return text;
}

}  // namespace zpregmon
