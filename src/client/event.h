// One recorded registry operation, as a client sees it.
#pragma once

#include "records/record_format.h"

#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

namespace zpregmon {

/// Text points into the buffer that the event was decoded from and is valid as long as that is.
struct Event {
    zpregflt::RecordType type;
    std::uint32_t processId;  ///< of the process that opened or created the key
    std::uint64_t processKey;
    std::uint64_t systemTime;  ///< 100-nanosecond intervals since 1 January 1601 (UTC)
    zpregflt::OperationMask operations;
    std::optional<std::u16string_view> key;  ///< absent: the record carries no name
    std::size_t offset;                      ///< of the record in its buffer
};

/// Where decoding had to stop, and why.
struct DecodeError {
    std::uint64_t offset;  ///< in bytes from the start of what was decoded
    std::string what;      ///< what is there and what was expected
};

}  // namespace zpregmon
