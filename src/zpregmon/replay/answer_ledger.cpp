#include "zpregmon/replay/answer_ledger.h"

#include "client/vocabulary.h"

#include <fmt/format.h>

#include <algorithm>
#include <utility>

namespace zpregmon {

namespace {

using zpregflt::RecordType;

/// The operation that the call is, or 0 for a call that asks nothing.
zpregflt::OperationMask OperationOf(Op op) {
    switch (op) {
        case Op::kQueryKey:
            return zpregflt::operation::kQueryKey;
        case Op::kQueryValue:
        case Op::kSetValue:  // the driver's query
            return zpregflt::operation::kQueryValueKey;
        case Op::kEnumKey:
            return zpregflt::operation::kEnumerateKey;
        case Op::kEnumValue:
            return zpregflt::operation::kEnumerateValueKey;
        default:
            return 0;
    }
}

bool IsAnswer(RecordType type) {
    return type == RecordType::kKeyQueried || type == RecordType::kValueQueried ||
           type == RecordType::kSubkeyEnumerated || type == RecordType::kValueEnumerated;
}

std::string CompareData(const std::vector<std::byte>& expected, Bytes got) {
    const auto [a, b] = std::mismatch(expected.begin(), expected.end(), got.begin(), got.end());
    if (a == expected.end() && b == got.end()) {
        return {};
    }
    return fmt::format("; {} bytes were given and {} recorded, equal up to byte {}",
                       expected.size(), got.size(), a - expected.begin());
}

std::string CompareNumber(const char* what, std::uint32_t expected, std::uint32_t got) {
    return expected == got ? "" : fmt::format("; {} {} is recorded as {}", what, expected, got);
}

}  // namespace

AnswerLedger::Entry AnswerLedger::Describe(const Record& record, const Outcome& outcome) {
    Entry entry{record.line,
                RecordType::kKeyQueried,
                record.informationClass,
                record.index,
                record.name,
                std::vector(outcome.bytes.begin(), outcome.bytes.end())};
    switch (record.op) {
        case Op::kQueryValue:
            entry.type = RecordType::kValueQueried;
            entry.informationClass = KeyValuePartialInformation;  // the one that is asked for
            break;
        case Op::kSetValue:
            entry.type = RecordType::kValueQueried;
            entry.informationClass = KeyValuePartialInformation;
            entry.data.reset();
            break;
        case Op::kEnumKey:
            entry.type = RecordType::kSubkeyEnumerated;
            break;
        case Op::kEnumValue:
            entry.type = RecordType::kValueEnumerated;
            break;
        default:
            break;
    }
    return entry;
}

AnswerLedger::AnswerLedger(zpregflt::OperationMask recorded)
    : recorded_(recorded),
      queries_({.routine = "ZwQueryValueKey", .nth = UINT64_MAX, .thisThreadOnly = true}) {}

/// It asks for the size first. A value that is not there has none.
bool AnswerLedger::DriverHasQueried() {
    constexpr std::uint64_t kCallsForAnAnswer = 2;
    const std::uint64_t before = std::exchange(queriesSeen_, queries_.MatchingCalls());
    return queriesSeen_ - before == kCallsForAnAnswer;
}

void AnswerLedger::Enter(const Record& record, const Outcome& outcome) {
    const bool isRecorded = (OperationOf(record.op) & recorded_) != 0;
    const bool isAnswered = record.op == Op::kSetValue ? DriverHasQueried() : outcome.IsComplete();
    if (!isRecorded || !isAnswered) {
        return;
    }
    const std::lock_guard guard(mutex_);
    entries_.push_back(Describe(record, outcome));
    entered_.notify_one();
}

void AnswerLedger::Close() {
    const std::lock_guard guard(mutex_);
    isClosed_ = true;
    entered_.notify_one();
}

void AnswerLedger::Compare(const Event& event) {
    if (!IsAnswer(event.Type())) {
        return;
    }
    std::unique_lock guard(mutex_);
    entered_.wait(guard, [this] { return isClosed_ || !entries_.empty(); });
    ++result_.compared;
    if (entries_.empty()) {
        Disagree(
            fmt::format("{} is recorded, and nobody was answered so", RecordName(event.Type())));
        return;
    }
    const Entry entry = std::move(entries_.front());
    entries_.pop_front();
    const std::string difference = Difference(entry, event);
    if (!difference.empty()) {
        Disagree(fmt::format("line {}{}", entry.line, difference));
    }
}

std::string AnswerLedger::Difference(const Entry& entry, const Event& event) {
    if (entry.type != event.Type()) {
        return fmt::format("; {} is recorded as {}", RecordName(entry.type),
                           RecordName(event.Type()));
    }
    std::string difference;
    const auto compare = [&](const auto& details) {
        difference += CompareNumber("class", entry.informationClass, details.informationClass);
        if (entry.data) {
            difference += CompareData(*entry.data, details.data);
        }
    };
    if (const auto key = event.As<KeyInformation>()) {
        compare(*key);
    } else if (const auto value = event.As<ValueEnumerated>()) {
        difference = CompareNumber("index", entry.index, value->index);
        compare(*value);
    } else if (const auto queried = event.As<ValueQueried>()) {
        if (!(queried->value == WireText(entry.value))) {
            difference = "; another value's name is recorded";
        }
        compare(*queried);
    }
    return difference;
}

void AnswerLedger::Disagree(std::string what) {
    ++result_.disagreements;
    if (result_.first.size() < LedgerResult::kMostListed) {
        result_.first.push_back(std::move(what));
    }
}

LedgerResult AnswerLedger::Finish() {
    const std::lock_guard guard(mutex_);
    for (const Entry& entry : entries_) {
        Disagree(fmt::format("line {}: {} is not recorded", entry.line, RecordName(entry.type)));
    }
    entries_.clear();
    return std::move(result_);
}

}  // namespace zpregmon
