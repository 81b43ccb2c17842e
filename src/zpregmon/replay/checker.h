// Compares what the machine answers with what was recorded.
//
// Where Windows is known to answer differently from the recorded system, the machine must answer as
// Windows does, and only then is the difference accepted:
//   - creating a key that exists: STATUS_SUCCESS instead of STATUS_OBJECT_NAME_EXISTS;
//   - opening a key: STATUS_SUCCESS instead of STATUS_PREDEFINED_HANDLE;
//   - creating a key with an empty name, which is the root itself: it was opened, not created;
//   - an answer that does not fit: STATUS_BUFFER_OVERFLOW instead of STATUS_SUCCESS;
//   - values are enumerated in the order in which they were made, not by name.
#pragma once

#include "zpregmon/replay/registry_call.h"
#include "zpregmon/replay/workload.h"

#include <array>
#include <cstdint>
#include <map>
#include <string>
#include <utility>
#include <vector>

namespace zpregmon {

struct Disagreement {
    std::uint32_t line;
    Op op;
    std::string what;  ///< expected ..., got ...
};

enum class Difference {
    kNameExists,
    kPredefinedHandle,
    kEmptyName,
    kBufferOverflow,
    kValueOrder,  ///< counted once for each enumeration whose order differs
};
inline constexpr std::size_t kDifferenceCount = 5;

struct CheckResult {
    std::uint64_t compared = 0;
    std::uint64_t disagreements = 0;
    std::vector<Disagreement> first;  ///< the first kMostListed of them
    std::array<std::uint64_t, kDifferenceCount> differences{};
    /// Enumerations of values that stopped early: which values came first is the system's choice,
    /// so that only types and sizes of one value are not compared.
    std::uint64_t openEnumerations = 0;

    static constexpr std::size_t kMostListed = 20;
};

/// Sees every operation of a replay in file order, after it was repeated.
class Checker {
public:
    void Check(const Record& record, const Outcome& outcome);
    /// Ends what a process has left open.
    void ProcessExited(std::uint32_t pid);
    /// After the last operation.
    CheckResult Finish();

private:
    /// One value of an enumeration, without the place at which it came.
    struct Value {
        std::uint32_t type = 0;
        std::uint64_t size = 0;
        bool isWhole = false;  ///< name and checksum are known
        std::u16string name;
        std::optional<std::uint32_t> crc;
        bool operator==(const Value&) const = default;
    };
    /// What came back while the index ran up from 0.
    struct Enumeration {
        std::vector<Value> recorded, answered;
    };
    using HandleId = std::pair<std::uint32_t, std::uint64_t>;

    void CheckStatus(const Record& record, const Outcome& outcome);
    NTSTATUS ExpectedStatus(const Record& record);
    void CheckDisposition(const Record& record, const Outcome& outcome);
    void CheckAnswer(const Record& record, const Answer& answer);
    void CheckCounts(const Record& record, const Answer& answer);
    void CheckEnumeratedValue(const Record& record, const Outcome& outcome);
    void Compare(const Record& record, Enumeration enumeration);
    void EndEnumeration(const HandleId& id);
    void Accept(Difference difference) {
        ++result_.differences[static_cast<std::size_t>(difference)];
    }
    void Disagree(const Record& record, std::string what);
    template <typename Number>
    void CheckNumber(const Record& record, const char* what, Number expected, Number got);

    CheckResult result_;
    std::map<HandleId, Enumeration> enumerations_;
};

}  // namespace zpregmon
