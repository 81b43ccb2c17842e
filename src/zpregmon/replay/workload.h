// Recorded registry traffic of real programs: the records of a registry-workload file.
#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>
#include <memory_resource>
#include <optional>
#include <span>
#include <stdexcept>
#include <string>
#include <string_view>
#include <vector>

namespace zpregmon {

/// Input that cannot be used. The text names the file, the line where there is one, and what was
/// expected.
class WorkloadError : public std::runtime_error {
public:
    using std::runtime_error::runtime_error;
};

enum class Op : std::uint8_t {
    kProcessStart,
    kProcessExit,
    kCreateKey,
    kOpenKey,
    kClose,
    kDuplicate,
    kSetValue,
    kDeleteValue,
    kQueryValue,
    kEnumValue,
    kEnumKey,
    kQueryKey,
    kDeleteKey,
    kFlushKey,
    kRenameKey,
    kLoadKey,
    kUnloadKey,
    kSaveKey,
    kSetSecurity,
    kQuerySecurity,
    kMark,
};
inline constexpr std::size_t kOpCount = 21;
/// As the file spells it.
std::string_view OpName(Op op);

/// What a query or an enumeration answered, or is recorded to have answered.
struct Answer {
    std::uint32_t type = 0;
    std::uint64_t size = 0;  ///< bytes of the variable part of the full answer
    std::uint64_t got = 0;   ///< bytes of it that fitted
    std::optional<std::u16string_view> name;
    std::optional<std::u16string_view> className;
    std::optional<std::uint32_t> crc;  ///< of a value's data
    std::uint32_t subkeys = 0;
    std::uint32_t values = 0;
    std::uint32_t maxName = 0;  ///< bytes, as the next two
    std::uint32_t maxValueName = 0;
    std::uint32_t maxValueData = 0;
};

/// One line. Members that the operation does not have are zero or empty; text and bytes live as
/// long as the workload.
struct Record {
    Op op = Op::kMark;
    std::uint32_t line = 0;
    std::uint32_t pid = 0;
    std::uint32_t tid = 0;
    std::int32_t status = 0;
    std::uint64_t root = 0;
    std::uint64_t handle = 0;  ///< that was used, or that a successful call gave
    std::u16string_view name;  ///< also the image of a process that starts
    std::u16string_view className;
    std::u16string_view file;  ///< that a hive is loaded from or saved to; empty: not recorded
    std::span<const std::byte> bytes;  ///< data to set, or a security descriptor
    std::uint64_t dataSize = 0;        ///< of the data to set; what `bytes` lack are zeros
    std::uint32_t access = 0;
    std::uint32_t attributes = 0;
    std::uint32_t options = 0;
    std::uint32_t type = 0;  ///< of the value to set
    std::uint32_t index = 0;
    std::uint32_t informationClass = 0;
    std::uint32_t securityInformation = 0;
    std::uint32_t disposition = 0;
    std::uint32_t exitCode = 0;
    std::uint32_t parent = 0;
    std::uint32_t creator = 0;  ///< process that made this one
    std::uint32_t fromPid = 0;
    std::uint32_t toPid = 0;
    std::uint64_t newHandle = 0;
    bool inherited = false;
    Answer answer;  ///< of a query or enumeration that succeeded
};

/// A whole file, checked: every record has its operation's fields, and every process that does
/// something has started before and not ended.
class Workload {
public:
    /// Reads the file (gzip, or the lines themselves); "-" is standard input. Lines of unknown
    /// operations are left out, unknown fields are ignored. Throws WorkloadError.
    static Workload Read(const std::string& path);

    Workload(Workload&&) = default;

    const std::string& Path() const { return path_; }
    const std::vector<std::u16string_view>& InitialKeys() const { return initialKeys_; }
    const std::vector<Record>& Records() const { return records_; }
    /// An id that no process of the workload has.
    std::uint32_t UnusedProcessId() const;

private:
    friend class WorkloadParser;
    Workload() : text_(std::make_unique<std::pmr::monotonic_buffer_resource>()) {}
    void CheckProcesses() const;

    std::string path_;
    /// Holds the text and bytes that records refer to.
    std::unique_ptr<std::pmr::monotonic_buffer_resource> text_;
    std::vector<std::u16string_view> initialKeys_;
    std::vector<Record> records_;
};

}  // namespace zpregmon
