// Walks the image of an event buffer and yields its records as events.
#pragma once

#include "client/event.h"

#include <cstddef>
#include <cstdint>
#include <optional>
#include <span>
#include <vector>

namespace zpregmon {

/// Trusts no byte of the image: every offset is checked before it is followed, a chain that meets
/// itself again is an error, and so is text that does not end inside the image. The image stays the
/// caller's, must start at a multiple of 8 and must not change while events of it are in use.
class RecordDecoder {
public:
    explicit RecordDecoder(std::span<const std::byte> image);

    /// The next record of the chain. False at its end and at the first damage (see Error).
    bool Next(Event& event);
    const std::optional<DecodeError>& Error() const { return error_; }

private:
    bool CheckPlace(std::int64_t place);
    bool Visit(std::size_t place);
    bool DecodeHeader(std::size_t place, const zpregflt::RecordHeader& header, Event& event);
    bool ReadName(std::size_t record, std::int32_t distance, Event& event);
    bool Fail(std::uint64_t offset, std::string what);

    std::span<const std::byte> image_;
    std::size_t place_ = 0;      ///< of the record (or buffer header) that was decoded last
    std::int32_t distance_ = 0;  ///< from there to the next record; 0: none
    std::vector<std::uint64_t> visited_;  ///< one bit for each place where a record can start
    std::optional<DecodeError> error_;
};

}  // namespace zpregmon
