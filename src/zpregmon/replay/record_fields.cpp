#include "zpregmon/replay/record_fields.h"

#include "zpregmon/replay/json_tokens.h"

#include <algorithm>
#include <array>
#include <limits>

namespace zpregmon {

namespace {

using Memory = std::pmr::memory_resource;

template <auto Member>
void Number(std::string_view token, Memory&, Record& record) {
    using Type = std::remove_reference_t<decltype(record.*Member)>;
    record.*Member = static_cast<Type>(DecodeNumber(token, std::numeric_limits<Type>::max()));
}
template <auto Member>
void AnswerNumber(std::string_view token, Memory&, Record& record) {
    using Type = std::remove_reference_t<decltype(record.answer.*Member)>;
    record.answer.*Member =
        static_cast<Type>(DecodeNumber(token, std::numeric_limits<Type>::max()));
}
/// A counted string of the system holds no more.
std::u16string_view Name(std::string_view token, Memory& memory) {
    constexpr std::size_t kMostUnits = 0x7FFF;
    const std::u16string_view text = DecodeText(token, memory);
    if (text.size() > kMostUnits) {
        throw TokenError("expected at most 32767 UTF-16 units");
    }
    return text;
}
template <auto Member>
void Text(std::string_view token, Memory& memory, Record& record) {
    record.*Member = Name(token, memory);
}
template <auto Member>
void AnswerText(std::string_view token, Memory& memory, Record& record) {
    record.answer.*Member = Name(token, memory);
}
void Bytes(std::string_view token, Memory& memory, Record& record) {
    record.bytes = DecodeHexBytes(token, memory);
    record.dataSize = record.bytes.size();
}
/// Follows Bytes: the recording kept only the beginning of long data.
void DataSize(std::string_view token, Memory&, Record& record) {
    constexpr std::uint64_t kMost = 64 << 20;
    record.dataSize = DecodeNumber(token, kMost);
    if (record.dataSize < record.bytes.size()) {
        throw TokenError("expected at least the length of 'data'");
    }
}
void CallStatus(std::string_view token, Memory&, Record& record) {
    record.status = static_cast<std::int32_t>(DecodeHexNumber(token));
}
void Crc(std::string_view token, Memory&, Record& record) {
    record.answer.crc = DecodeHexNumber(token);
}
void Inherited(std::string_view token, Memory&, Record& record) {
    record.inherited = DecodeBool(token);
}

constexpr auto kAlways = Need::kAlways;
constexpr auto kOptional = Need::kOptional;
constexpr auto kOnSuccess = Need::kOnSuccess;
constexpr auto kNames = Need::kOnSuccessOfNames;
constexpr auto kCounts = Need::kOnSuccessOfCounts;

constexpr FieldRule kPid = {"pid", kAlways, Number<&Record::pid>};
constexpr FieldRule kTid = {"tid", kAlways, Number<&Record::tid>};
constexpr FieldRule kStatus = {"status", kAlways, CallStatus};
constexpr FieldRule kHandle = {"handle", kAlways, Number<&Record::handle>};
constexpr FieldRule kRoot = {"root", kAlways, Number<&Record::root>};
constexpr FieldRule kName = {"name", kAlways, Text<&Record::name>};
constexpr FieldRule kAccess = {"access", kAlways, Number<&Record::access>};
constexpr FieldRule kAttributes = {"attributes", kAlways, Number<&Record::attributes>};
constexpr FieldRule kOptions = {"options", kAlways, Number<&Record::options>};
constexpr FieldRule kClass = {"class", kAlways, Number<&Record::informationClass>};
constexpr FieldRule kIndex = {"index", kAlways, Number<&Record::index>};

constexpr FieldRule kProcessStart[] = {
    kPid,
    kTid,
    {"parent", kAlways, Number<&Record::parent>},
    {"creator_pid", kAlways, Number<&Record::creator>},
    {"image", kAlways, Text<&Record::name>},
};
constexpr FieldRule kProcessExit[] = {
    kPid, kTid, {"exit_code", kAlways, Number<&Record::exitCode>}};
constexpr FieldRule kCreateKey[] = {
    kPid,
    kTid,
    kStatus,
    kRoot,
    kName,
    kAccess,
    kOptions,
    kAttributes,
    kHandle,
    {"class", kAlways, Text<&Record::className>},
    {"disposition", kOnSuccess, Number<&Record::disposition>},
    {"sd", kOptional, Bytes},
};
constexpr FieldRule kOpenKey[] = {kPid, kTid, kStatus, kRoot, kName, kAccess, kAttributes, kHandle};
constexpr FieldRule kHandleCall[] = {kPid, kTid, kStatus, kHandle};
constexpr FieldRule kDuplicate[] = {
    kPid,
    kTid,
    kStatus,
    kAccess,
    kAttributes,
    kOptions,
    kHandle,
    {"from_pid", kAlways, Number<&Record::fromPid>},
    {"to_pid", kAlways, Number<&Record::toPid>},
    {"new_handle", kAlways, Number<&Record::newHandle>},
    {"inherited", kOptional, Inherited},
};
constexpr FieldRule kSetValue[] = {
    kPid,
    kTid,
    kStatus,
    kHandle,
    kName,
    {"type", kAlways, Number<&Record::type>},
    {"data", kAlways, Bytes},
    {"data_size", kOptional, DataSize},
};
constexpr FieldRule kNamedCall[] = {kPid, kTid, kStatus, kHandle, kName};
constexpr FieldRule kQueryValue[] = {
    kPid,
    kTid,
    kStatus,
    kHandle,
    kName,
    {"type", kOnSuccess, AnswerNumber<&Answer::type>},
    {"size", kOnSuccess, AnswerNumber<&Answer::size>},
    {"got", kOnSuccess, AnswerNumber<&Answer::got>},
    {"crc", kOptional, Crc},
};
constexpr FieldRule kEnumValue[] = {
    kPid,
    kTid,
    kStatus,
    kHandle,
    kIndex,
    kClass,
    {"type", kOnSuccess, AnswerNumber<&Answer::type>},
    {"size", kOnSuccess, AnswerNumber<&Answer::size>},
    {"got", kOnSuccess, AnswerNumber<&Answer::got>},
    {"result_name", kOptional, AnswerText<&Answer::name>},
    {"crc", kOptional, Crc},
};
constexpr FieldRule kSize = {"size", kNames, AnswerNumber<&Answer::size>};
constexpr FieldRule kGot = {"got", kNames, AnswerNumber<&Answer::got>};
constexpr FieldRule kResultName = {"result_name", kOptional, AnswerText<&Answer::name>};
constexpr FieldRule kResultClass = {"result_class", kOptional, AnswerText<&Answer::className>};
constexpr FieldRule kSubkeys = {"subkeys", kCounts, AnswerNumber<&Answer::subkeys>};
constexpr FieldRule kValues = {"values", kCounts, AnswerNumber<&Answer::values>};
constexpr FieldRule kMaxName = {"max_name", kCounts, AnswerNumber<&Answer::maxName>};
constexpr FieldRule kMaxValueName = {"max_value_name", kCounts,
                                     AnswerNumber<&Answer::maxValueName>};
constexpr FieldRule kMaxValueData = {"max_value_data", kCounts,
                                     AnswerNumber<&Answer::maxValueData>};
constexpr FieldRule kEnumKey[] = {kPid,     kTid,    kStatus,  kHandle,       kIndex,
                                  kClass,   kSize,   kGot,     kResultName,   kResultClass,
                                  kSubkeys, kValues, kMaxName, kMaxValueName, kMaxValueData};
constexpr FieldRule kQueryKey[] = {kPid,    kTid,     kStatus,       kHandle,      kClass,
                                   kSize,   kGot,     kResultName,   kResultClass, kSubkeys,
                                   kValues, kMaxName, kMaxValueName, kMaxValueData};
constexpr FieldRule kFile = {"file", kOptional, Text<&Record::file>};
constexpr FieldRule kLoadKey[] = {kPid, kTid, kStatus, kRoot, kName, kAttributes, kFile};
constexpr FieldRule kUnloadKey[] = {kPid, kTid, kStatus, kRoot, kName, kAttributes};
constexpr FieldRule kSaveKey[] = {kPid, kTid, kStatus, kHandle, kFile};
constexpr FieldRule kInfo = {"info", kAlways, Number<&Record::securityInformation>};
constexpr FieldRule kSetSecurity[] = {kPid, kTid, kStatus, kHandle, kInfo, {"sd", kAlways, Bytes}};
constexpr FieldRule kQuerySecurity[] = {
    kPid, kTid, kStatus, kHandle, kInfo, {"size", kAlways, AnswerNumber<&Answer::size>}};
constexpr FieldRule kMark[] = {kName};

constexpr std::array<OpRules, kOpCount> kRules = {{
    {Op::kProcessStart, "process-start", kProcessStart},
    {Op::kProcessExit, "process-exit", kProcessExit},
    {Op::kCreateKey, "create-key", kCreateKey},
    {Op::kOpenKey, "open-key", kOpenKey},
    {Op::kClose, "close", kHandleCall},
    {Op::kDuplicate, "duplicate", kDuplicate},
    {Op::kSetValue, "set-value", kSetValue},
    {Op::kDeleteValue, "delete-value", kNamedCall},
    {Op::kQueryValue, "query-value", kQueryValue},
    {Op::kEnumValue, "enum-value", kEnumValue},
    {Op::kEnumKey, "enum-key", kEnumKey},
    {Op::kQueryKey, "query-key", kQueryKey},
    {Op::kDeleteKey, "delete-key", kHandleCall},
    {Op::kFlushKey, "flush-key", kHandleCall},
    {Op::kRenameKey, "rename-key", kNamedCall},
    {Op::kLoadKey, "load-key", kLoadKey},
    {Op::kUnloadKey, "unload-key", kUnloadKey},
    {Op::kSaveKey, "save-key", kSaveKey},
    {Op::kSetSecurity, "set-security", kSetSecurity},
    {Op::kQuerySecurity, "query-security", kQuerySecurity},
    {Op::kMark, "mark", kMark},
}};

constexpr bool RulesMatchOps() {
    for (std::size_t i = 0; i < kRules.size(); ++i) {
        if (kRules[i].op != static_cast<Op>(i)) {
            return false;
        }
    }
    return true;
}
static_assert(RulesMatchOps());

bool Succeeded(const Record& record) {
    return record.status >= 0;
}

bool HasCounts(const Record& record) {
    return record.informationClass == 2 || record.informationClass == 4;
}

}  // namespace

std::string_view OpName(Op op) {
    return kRules[static_cast<std::size_t>(op)].name;
}

const OpRules* FindRules(std::string_view opName) {
    const auto found = std::find_if(kRules.begin(), kRules.end(),
                                    [&](const OpRules& rules) { return rules.name == opName; });
    return found == kRules.end() ? nullptr : &*found;
}

bool MustBeThere(Need need, const Record& record) {
    switch (need) {
        case Need::kAlways:
            return true;
        case Need::kOptional:
            return false;
        case Need::kOnSuccess:
            return Succeeded(record);
        case Need::kOnSuccessOfNames:
            return Succeeded(record) && !HasCounts(record);
        case Need::kOnSuccessOfCounts:
            return Succeeded(record) && HasCounts(record);
    }
    return true;
}

}  // namespace zpregmon
