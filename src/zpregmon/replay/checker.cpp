#include "zpregmon/replay/checker.h"

#include <fmt/format.h>

#include <algorithm>
#include <tuple>

namespace zpregmon {

namespace {

std::string StatusText(NTSTATUS status) {
    return fmt::format("status {:08x}", static_cast<std::uint32_t>(status));
}

std::string NameText(const std::optional<std::u16string_view>& name) {
    return name ? "'" + platform::ToUtf8(*name) + "'" : "none";
}

std::string CrcText(const std::optional<std::uint32_t>& crc) {
    return crc ? fmt::format("{:08x}", *crc) : "none";
}

bool IsQuery(Op op) {
    return op == Op::kQueryValue || op == Op::kEnumKey || op == Op::kQueryKey;
}

bool HasCounts(const Record& record) {
    return record.informationClass == KeyFullInformation ||
           record.informationClass == KeyCachedInformation;
}

bool WasCut(const Answer& recorded) {
    return recorded.got < recorded.size;
}

}  // namespace

void Checker::Check(const Record& record, const Outcome& outcome) {
    ++result_.compared;
    if (record.op == Op::kEnumValue) {
        CheckEnumeratedValue(record, outcome);
        return;
    }
    CheckStatus(record, outcome);
    if (record.op == Op::kCreateKey) {
        CheckDisposition(record, outcome);
    } else if (record.op == Op::kClose) {
        EndEnumeration({record.pid, record.handle});
    } else if (IsQuery(record.op) && NT_SUCCESS(record.status) && outcome.HasAnswer()) {
        CheckAnswer(record, outcome.answer);
    }
}

void Checker::CheckStatus(const Record& record, const Outcome& outcome) {
    const NTSTATUS expected = ExpectedStatus(record);
    if (outcome.status != expected) {
        Disagree(record, fmt::format("expected {}, got {}", StatusText(expected),
                                     StatusText(outcome.status)));
    }
}

NTSTATUS Checker::ExpectedStatus(const Record& record) {
    if (record.op == Op::kCreateKey && record.status == STATUS_OBJECT_NAME_EXISTS) {
        Accept(Difference::kNameExists);
        return STATUS_SUCCESS;
    }
    if (record.op == Op::kOpenKey && record.status == STATUS_PREDEFINED_HANDLE) {
        Accept(Difference::kPredefinedHandle);
        return STATUS_SUCCESS;
    }
    if (IsQuery(record.op) && record.status == STATUS_SUCCESS && WasCut(record.answer)) {
        Accept(Difference::kBufferOverflow);
        return STATUS_BUFFER_OVERFLOW;
    }
    return record.status;
}

void Checker::CheckDisposition(const Record& record, const Outcome& outcome) {
    if (!NT_SUCCESS(record.status) || !NT_SUCCESS(outcome.status)) {
        return;
    }
    std::uint32_t expected = record.disposition;
    if (record.name.empty() && expected == REG_CREATED_NEW_KEY) {
        Accept(Difference::kEmptyName);
        expected = REG_OPENED_EXISTING_KEY;
    }
    CheckNumber(record, "disposition", expected, outcome.disposition);
}

void Checker::CheckAnswer(const Record& record, const Answer& answer) {
    if (record.op != Op::kQueryValue && HasCounts(record)) {
        CheckCounts(record, answer);
        return;
    }
    const Answer& expected = record.answer;
    CheckNumber(record, "type", expected.type, answer.type);
    CheckNumber(record, "size", expected.size, answer.size);
    if (expected.name && expected.name != answer.name) {
        Disagree(record, fmt::format("expected name {}, got {}", NameText(expected.name),
                                     NameText(answer.name)));
    }
    if (expected.className && expected.className != answer.className) {
        Disagree(record, fmt::format("expected class {}, got {}", NameText(expected.className),
                                     NameText(answer.className)));
    }
    if (expected.crc && expected.crc != answer.crc) {
        Disagree(record, fmt::format("expected data with checksum {}, got {}",
                                     CrcText(expected.crc), CrcText(answer.crc)));
    }
}

void Checker::CheckCounts(const Record& record, const Answer& answer) {
    const Answer& expected = record.answer;
    CheckNumber(record, "number of subkeys", expected.subkeys, answer.subkeys);
    CheckNumber(record, "number of values", expected.values, answer.values);
    CheckNumber(record, "longest subkey name", expected.maxName, answer.maxName);
    CheckNumber(record, "longest value name", expected.maxValueName, answer.maxValueName);
    CheckNumber(record, "longest data", expected.maxValueData, answer.maxValueData);
}

template <typename Number>
void Checker::CheckNumber(const Record& record, const char* what, Number expected, Number got) {
    if (expected != got) {
        Disagree(record, fmt::format("expected {} {}, got {}", what, expected, got));
    }
}

/// Which value comes at an index differs; which values come at all must not. So the values are
/// collected while the index runs up, and compared when both sides say that there are no more.
void Checker::CheckEnumeratedValue(const Record& record, const Outcome& outcome) {
    const HandleId id{record.pid, record.handle};
    const bool answered = NT_SUCCESS(record.status) && outcome.HasAnswer();
    if (!answered) {
        CheckStatus(record, outcome);
        const auto found = enumerations_.find(id);
        if (found != enumerations_.end() && record.status == STATUS_NO_MORE_ENTRIES &&
            outcome.status == record.status && found->second.recorded.size() == record.index) {
            Compare(record, std::move(found->second));
            enumerations_.erase(found);
        } else {
            EndEnumeration(id);
        }
        return;
    }
    if (outcome.status == STATUS_BUFFER_OVERFLOW) {
        if (WasCut(record.answer)) {
            Accept(Difference::kBufferOverflow);
        } else {
            CheckStatus(record, outcome);
        }
    }
    const auto before = enumerations_.find(id);
    if (record.index == 0 && before != enumerations_.end() && before->second.recorded.size() > 1) {
        EndEnumeration(id);
    }
    const auto keep = [&](std::vector<Value>& values, const Answer& answer, bool isWhole) {
        values.resize(std::max<std::size_t>(values.size(), record.index + std::size_t{1}));
        values[record.index] = {answer.type, answer.size, isWhole,
                                std::u16string(answer.name.value_or(u"")), answer.crc};
    };
    Enumeration& current = enumerations_[id];
    keep(current.recorded, record.answer, !WasCut(record.answer));
    keep(current.answered, outcome.answer, outcome.IsComplete());
}

void Checker::Compare(const Record& record, Enumeration enumeration) {
    auto& [recorded, answered] = enumeration;
    const auto isWhole = [](const Value& value) { return value.isWhole; };
    const bool allWhole = std::all_of(recorded.begin(), recorded.end(), isWhole) &&
                          std::all_of(answered.begin(), answered.end(), isWhole);
    if (!allWhole) {
        // What was cut on one side is compared by what is known of it on both.
        for (auto* values : {&recorded, &answered}) {
            for (Value& value : *values) {
                value = {value.type, value.size, false, {}, {}};
            }
        }
    }
    if (recorded == answered) {
        return;
    }
    const auto byContent = [](const Value& a, const Value& b) {
        return std::tie(a.name, a.type, a.size, a.crc) < std::tie(b.name, b.type, b.size, b.crc);
    };
    std::sort(recorded.begin(), recorded.end(), byContent);
    std::sort(answered.begin(), answered.end(), byContent);
    if (recorded == answered) {
        Accept(Difference::kValueOrder);
        return;
    }
    const auto [expected, got] =
        std::mismatch(recorded.begin(), recorded.end(), answered.begin(), answered.end());
    const auto describe = [](const Value& value) {
        return fmt::format("value '{}' of type {} with {} bytes, checksum {}",
                           platform::ToUtf8(value.name), value.type, value.size,
                           CrcText(value.crc));
    };
    Disagree(record, fmt::format("expected the key to have {}, got {}", describe(*expected),
                                 describe(*got)));
}

void Checker::EndEnumeration(const HandleId& id) {
    const auto found = enumerations_.find(id);
    if (found == enumerations_.end()) {
        return;
    }
    if (found->second.recorded != found->second.answered) {
        ++result_.openEnumerations;
    }
    enumerations_.erase(found);
}

void Checker::ProcessExited(std::uint32_t pid) {
    auto at = enumerations_.lower_bound({pid, 0});
    while (at != enumerations_.end() && at->first.first == pid) {
        EndEnumeration((at++)->first);
    }
}

CheckResult Checker::Finish() {
    while (!enumerations_.empty()) {
        EndEnumeration(enumerations_.begin()->first);
    }
    return std::move(result_);
}

void Checker::Disagree(const Record& record, std::string what) {
    ++result_.disagreements;
    if (result_.first.size() < CheckResult::kMostListed) {
        result_.first.push_back({record.line, record.op, std::move(what)});
    }
}

}  // namespace zpregmon
