// Which fields each operation of a workload has, and where they go in a record.
#pragma once

#include "zpregmon/replay/workload.h"

#include <memory_resource>
#include <span>
#include <string_view>

namespace zpregmon {

/// When a field must be there.
enum class Need {
    kAlways,
    kOptional,
    kOnSuccess,         ///< the call succeeded
    kOnSuccessOfNames,  ///< and its information class has a variable part (0, 1, 3)
    kOnSuccessOfCounts  ///< and its information class has counts (2, 4)
};

struct FieldRule {
    std::string_view name;
    Need need;
    /// Decodes the token into the record; throws TokenError.
    void (*store)(std::string_view token, std::pmr::memory_resource& memory, Record& record);
};

/// The rules in the order in which they must be applied, or none for an unknown operation.
struct OpRules {
    Op op;
    std::string_view name;
    std::span<const FieldRule> fields;
};
const OpRules* FindRules(std::string_view opName);

/// Whether the rule's field must be there in this record, whose rules before it were applied.
bool MustBeThere(Need need, const Record& record);

}  // namespace zpregmon
