// Every kind of disagreement is noticed, and every documented difference accepted only as such.
#include "zpregmon/replay/checker.h"

#include <gtest/gtest.h>

#include <functional>

namespace zpregmon {
namespace {

constexpr NTSTATUS kNotFound = STATUS_OBJECT_NAME_NOT_FOUND;

struct Comparison {
    const char* name;
    std::function<void(Record&, Outcome&)> prepare;  ///< makes the two agree
    std::function<void(Outcome&)> spoil;             ///< and disagree
};

class CheckerComparison : public testing::TestWithParam<Comparison> {};

std::uint64_t Disagreements(const Record& record, const Outcome& outcome) {
    Checker checker;
    checker.Check(record, outcome);
    return checker.Finish().disagreements;
}

TEST_P(CheckerComparison, AcceptsWhatAgreesAndNothingElse) {
    Record record;
    Outcome outcome;
    GetParam().prepare(record, outcome);
    EXPECT_EQ(Disagreements(record, outcome), 0U);
    GetParam().spoil(outcome);
    EXPECT_EQ(Disagreements(record, outcome), 1U);
}

/// A query with the same answer on both sides.
void PrepareQuery(Record& record, Outcome& outcome, Op op) {
    record.op = op;
    record.answer.type = outcome.answer.type = 1;
    record.answer.size = record.answer.got = outcome.answer.size = 10;
    record.answer.name = outcome.answer.name = u"Tcpip";
    record.answer.className = outcome.answer.className = u"Class";
    record.answer.crc = outcome.answer.crc = 0x12345678;
}
void PrepareKeyQuery(Record& record, Outcome& outcome) {
    PrepareQuery(record, outcome, Op::kEnumKey);
}
void PrepareCounts(Record& record, Outcome& outcome) {
    record.op = Op::kQueryKey;
    record.informationClass = KeyFullInformation;
    record.answer.subkeys = outcome.answer.subkeys = 1;
    record.answer.values = outcome.answer.values = 2;
    record.answer.maxName = outcome.answer.maxName = 3;
    record.answer.maxValueName = outcome.answer.maxValueName = 4;
    record.answer.maxValueData = outcome.answer.maxValueData = 5;
}
void PrepareCreate(Record& record, Outcome& outcome) {
    record.op = Op::kCreateKey;
    record.name = u"x";
    record.disposition = outcome.disposition = 1;
}
/// The recorded answer was cut; on Windows the status says so.
void PrepareCut(Record& record, Outcome& outcome) {
    PrepareQuery(record, outcome, Op::kQueryValue);
    record.answer.got = 4;
    outcome.status = STATUS_BUFFER_OVERFLOW;
}

const Comparison kComparisons[] = {
    {"Status", [](Record& r, Outcome&) { r.op = Op::kDeleteKey; },
     [](Outcome& o) { o.status = kNotFound; }},
    {"FailedStatus",
     [](Record& r, Outcome& o) {
         r.op = Op::kOpenKey;
         r.status = o.status = kNotFound;
     },
     [](Outcome& o) { o.status = STATUS_SUCCESS; }},
    {"Disposition", PrepareCreate, [](Outcome& o) { o.disposition = 2; }},
    {"Type", PrepareKeyQuery, [](Outcome& o) { o.answer.type = 3; }},
    {"Size", PrepareKeyQuery, [](Outcome& o) { o.answer.size = 12; }},
    {"Name", PrepareKeyQuery, [](Outcome& o) { o.answer.name = u"tcpip"; }},
    {"NoName", PrepareKeyQuery, [](Outcome& o) { o.answer.name.reset(); }},
    {"ClassName", PrepareKeyQuery, [](Outcome& o) { o.answer.className = u""; }},
    {"Checksum", PrepareKeyQuery, [](Outcome& o) { o.answer.crc = 1; }},
    {"Subkeys", PrepareCounts, [](Outcome& o) { o.answer.subkeys = 9; }},
    {"Values", PrepareCounts, [](Outcome& o) { o.answer.values = 9; }},
    {"LongestName", PrepareCounts, [](Outcome& o) { o.answer.maxName = 9; }},
    {"LongestValueName", PrepareCounts, [](Outcome& o) { o.answer.maxValueName = 9; }},
    {"LongestData", PrepareCounts, [](Outcome& o) { o.answer.maxValueData = 9; }},
    // Where Windows differs, only its own answer will do.
    {"ExistingKey",
     [](Record& r, Outcome& o) {
         PrepareCreate(r, o);
         r.status = STATUS_OBJECT_NAME_EXISTS;
         r.disposition = o.disposition = 2;
     },
     [](Outcome& o) { o.status = STATUS_OBJECT_NAME_EXISTS; }},
    {"PredefinedHandle",
     [](Record& r, Outcome&) {
         r.op = Op::kOpenKey;
         r.status = STATUS_PREDEFINED_HANDLE;
     },
     [](Outcome& o) { o.status = STATUS_PREDEFINED_HANDLE; }},
    {"EmptyName",
     [](Record& r, Outcome& o) {
         PrepareCreate(r, o);
         r.name = u"";
         o.disposition = 2;
     },
     [](Outcome& o) { o.disposition = 1; }},
    {"CutAnswer", PrepareCut, [](Outcome& o) { o.status = STATUS_SUCCESS; }},
    {"AnswerCutWithoutReason", PrepareKeyQuery,
     [](Outcome& o) { o.status = STATUS_BUFFER_OVERFLOW; }},
};

INSTANTIATE_TEST_SUITE_P(Checker, CheckerComparison, testing::ValuesIn(kComparisons),
                         [](const auto& test) { return std::string(test.param.name); });

/// One enumeration of values: what was recorded and what comes back, by index.
struct Values {
    struct Value {
        std::u16string_view name;
        std::uint64_t size;
        std::uint32_t crc;
    };
    std::vector<Value> recorded, answered;
    bool ends = true;  ///< with an index for which there is no more

    CheckResult Check() const {
        Checker checker;
        for (std::uint32_t index = 0; index < recorded.size(); ++index) {
            Record record = RecordAt(index);
            record.answer = AnswerOf(recorded[index]);
            Outcome outcome;
            outcome.answer = AnswerOf(answered[index]);
            checker.Check(record, outcome);
        }
        if (ends) {
            Record record = RecordAt(static_cast<std::uint32_t>(recorded.size()));
            record.status = STATUS_NO_MORE_ENTRIES;
            Outcome outcome;
            outcome.status = STATUS_NO_MORE_ENTRIES;
            checker.Check(record, outcome);
        }
        return checker.Finish();
    }

private:
    static Record RecordAt(std::uint32_t index) {
        Record record;
        record.op = Op::kEnumValue;
        record.pid = 32;
        record.handle = 4;
        record.informationClass = KeyValueFullInformation;
        record.index = index;
        return record;
    }
    static Answer AnswerOf(const Value& value) {
        Answer answer;
        answer.size = answer.got = value.size;
        answer.name = value.name;
        answer.crc = value.crc;
        return answer;
    }
};

TEST(CheckerEnumeration, OrderOfValuesIsFreeButNotTheirSet) {
    const Values::Value a{u"a", 10, 1}, b{u"b", 20, 2}, c{u"c", 20, 2};
    const auto same = Values{{a, b}, {a, b}}.Check();
    EXPECT_EQ(same.disagreements, 0U);
    EXPECT_EQ(same.differences[static_cast<std::size_t>(Difference::kValueOrder)], 0U);

    const auto swapped = Values{{a, b}, {b, a}}.Check();
    EXPECT_EQ(swapped.disagreements, 0U);
    EXPECT_EQ(swapped.differences[static_cast<std::size_t>(Difference::kValueOrder)], 1U);

    EXPECT_EQ((Values{{a, b}, {a, c}}.Check().disagreements), 1U) << "another name";
    EXPECT_EQ((Values{{a, b}, {a, a}}.Check().disagreements), 1U) << "one value twice";
    EXPECT_EQ((Values{{a, b}, {a, {u"b", 20, 3}}}.Check().disagreements), 1U) << "other data";
}

TEST(CheckerEnumeration, WhatStopsEarlyIsCountedAsNotCompared) {
    const Values::Value a{u"a", 10, 1}, b{u"b", 20, 2};
    EXPECT_EQ((Values{{a}, {b}, false}.Check().openEnumerations), 1U);
    EXPECT_EQ((Values{{a}, {a}, false}.Check().openEnumerations), 0U);
    EXPECT_EQ((Values{{a}, {b}, false}.Check().disagreements), 0U);
}

TEST(CheckerEnumeration, LengthMustAgree) {
    Record record;
    record.op = Op::kEnumValue;
    record.status = STATUS_NO_MORE_ENTRIES;
    EXPECT_EQ(Disagreements(record, Outcome{}), 1U);
}

}  // namespace
}  // namespace zpregmon
