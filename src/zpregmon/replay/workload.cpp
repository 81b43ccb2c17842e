#include "zpregmon/replay/workload.h"

#include "zpregmon/replay/json_tokens.h"
#include "zpregmon/replay/record_fields.h"
#include "zpregmon/replay/workload_file.h"

#include <fmt/format.h>
#include <simdjson.h>

#include <algorithm>
#include <cstring>
#include <limits>
#include <unordered_map>

namespace zpregmon {

namespace {

constexpr std::string_view kFormat = "registry-workload";
constexpr std::uint64_t kVersion = 1;
constexpr std::uint32_t kPidStep = 4;
/// The system process has it.
constexpr std::uint32_t kSystemPid = 4;

}  // namespace

/// Goes through the lines of one file.
class WorkloadParser {
public:
    WorkloadParser(const std::string& path, const FileText& text) : text_(text) {
        workload_.path_ = path;
    }

    Workload Parse() {
        const char* at = text_.bytes.data();
        const char* const end = at + text_.size;
        if (at == end) {
            Fail("the file is empty, expected a header line");
        }
        while (at != end) {
            const auto* newline =
                static_cast<const char*>(std::memchr(at, '\n', static_cast<std::size_t>(end - at)));
            const char* const lineEnd = newline != nullptr ? newline : end;
            ParseLine({at, static_cast<std::size_t>(lineEnd - at)});
            at = newline != nullptr ? newline + 1 : end;
            ++line_;
        }
        return std::move(workload_);
    }

private:
    [[noreturn]] void Fail(std::string_view problem) const {
        throw WorkloadError(fmt::format("{}:{}: {}", workload_.path_, line_, problem));
    }

    void ParseLine(std::string_view line) {
        try {
            ReadMembers(line);
            if (line_ == 1) {
                TakeHeader();
            } else {
                TakeRecord();
            }
        } catch (const TokenError& error) {
            Fail(error.what());
        }
    }

    void ReadMembers(std::string_view line) {
        members_.Clear();
        initialKeys_.clear();
        // Behind every line there are as many readable bytes as the parser asks for.
        simdjson::ondemand::document document;
        simdjson::ondemand::object object;
        Check(parser_.iterate(line.data(), line.size(), line.size() + simdjson::SIMDJSON_PADDING)
                  .get(document));
        Check(document.get_object().get(object));
        for (auto field : object) {
            std::string_view key;
            Check(field.unescaped_key().get(key));
            std::string_view token;
            Check(field.value().raw_json_token().get(token));
            members_.Add(key, token);
            if (line_ == 1 && key == "initial_keys") {
                ReadInitialKeys(field.value());
            }
        }
        // A location is left only when there is something behind the object.
        if (document.current_location().error() != simdjson::OUT_OF_BOUNDS) {
            throw TokenError("expected the line to end behind its JSON object");
        }
    }

    void ReadInitialKeys(simdjson::simdjson_result<simdjson::ondemand::value> value) {
        simdjson::ondemand::array keys;
        Check(value.get_array().get(keys));
        for (auto key : keys) {
            std::string_view token;
            Check(key.raw_json_token().get(token));
            initialKeys_.push_back(DecodeText(token, *workload_.text_));
        }
    }

    static void Check(simdjson::error_code error) {
        if (error != simdjson::SUCCESS) {
            throw TokenError(
                fmt::format("expected a JSON object ({})", simdjson::error_message(error)));
        }
    }

    void TakeHeader() {
        const auto expected = fmt::format("the header of a {} file", kFormat);
        const std::u16string_view format =
            DecodeText(members_.Get("format", expected), *workload_.text_);
        if (!std::equal(format.begin(), format.end(), kFormat.begin(), kFormat.end())) {
            throw TokenError("'format': expected \"" + std::string(kFormat) + "\"");
        }
        const std::uint64_t version = DecodeNumber(members_.Get("version", "a number"),
                                                   std::numeric_limits<std::uint64_t>::max());
        if (version != kVersion) {
            throw TokenError(fmt::format("version {}, expected version {}", version, kVersion));
        }
        members_.Get("initial_keys", "an array of key paths");
        workload_.initialKeys_ = initialKeys_;
    }

    void TakeRecord() {
        const std::string_view op = members_.Get("op", "the name of an operation");
        if (op.size() < 2 || op.front() != '"') {
            throw TokenError("'op': expected a string");
        }
        const OpRules* const rules = FindRules(op.substr(1, op.find('"', 1) - 1));
        if (rules == nullptr) {
            return;
        }
        Record record;
        record.op = rules->op;
        record.line = line_;
        for (const FieldRule& rule : rules->fields) {
            Apply(rule, *rules, record);
        }
        workload_.records_.push_back(record);
    }

    void Apply(const FieldRule& rule, const OpRules& rules, Record& record) {
        const std::string_view* token = members_.Find(rule.name);
        if (token == nullptr) {
            if (MustBeThere(rule.need, record)) {
                throw TokenError(
                    fmt::format("{} without '{}', which is expected here", rules.name, rule.name));
            }
            return;
        }
        try {
            rule.store(*token, *workload_.text_, record);
        } catch (const TokenError& error) {
            throw TokenError(fmt::format("{}, '{}': {}", rules.name, rule.name, error.what()));
        }
    }

    const FileText& text_;
    Workload workload_;
    std::uint32_t line_ = 1;
    simdjson::ondemand::parser parser_;
    JsonMembers members_;
    std::vector<std::u16string_view> initialKeys_;
};

Workload Workload::Read(const std::string& path) {
    const FileText text = ReadWholeFile(path, simdjson::SIMDJSON_PADDING);
    Workload workload = WorkloadParser(path, text).Parse();
    workload.CheckProcesses();
    return workload;
}

std::uint32_t Workload::UnusedProcessId() const {
    std::uint32_t highest = kSystemPid;
    for (const Record& record : records_) {
        highest = std::max(highest, record.pid);
    }
    return highest + kPidStep;
}

void Workload::CheckProcesses() const {
    std::unordered_map<std::uint32_t, bool> lives;  // false: has ended
    const auto check = [&](const Record& record, std::uint32_t pid) {
        const auto found = lives.find(pid);
        if (found == lives.end() || !found->second) {
            throw WorkloadError(fmt::format(
                "{}:{}: process {} {}, expected one that is running", path_, record.line, pid,
                found == lives.end() ? "has not started" : "has ended"));
        }
    };
    for (const Record& record : records_) {
        if (record.op == Op::kMark) {
            continue;
        }
        if (record.op == Op::kProcessStart) {
            if (record.pid % kPidStep != 0 || record.pid == 0 || record.pid == kSystemPid ||
                lives.contains(record.pid)) {
                throw WorkloadError(fmt::format(
                    "{}:{}: a process starts with id {}, expected a multiple of {} that was not "
                    "used before",
                    path_, record.line, record.pid, kPidStep));
            }
            if (record.creator != 0) {
                check(record, record.creator);
            }
            lives[record.pid] = true;
            continue;
        }
        check(record, record.pid);
        if (record.op == Op::kDuplicate) {
            check(record, record.fromPid);
            check(record, record.toPid);
        }
        if (record.op == Op::kProcessExit) {
            lives[record.pid] = false;
        }
    }
}

}  // namespace zpregmon
