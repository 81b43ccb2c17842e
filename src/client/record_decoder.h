// Walks the image of an event buffer and yields its records as events.
#pragma once

#include "client/event.h"

#include <array>
#include <cstddef>
#include <cstdint>
#include <optional>
#include <span>
#include <vector>

namespace zpregmon {

/// Trusts no byte of the image: every offset and length is checked before it is followed, a chain
/// that meets itself again is an error, and so is text that does not end inside the image. Copies
/// nothing: the image stays the caller's, must start at a multiple of 8 and must not change while
/// events of it are in use.
class RecordDecoder {
public:
    explicit RecordDecoder(std::span<const std::byte> image);

    /// The next record of the chain. False at its end and at the first damage (see Error).
    bool Next(Event& event);
    const std::optional<DecodeError>& Error() const { return error_; }

private:
    bool Visit(std::size_t place);
    bool ReadName(std::size_t record, std::int32_t distance, Event& event);
    [[gnu::noinline]] bool LookUpName(std::size_t place);
    // These say what is wrong and return false; out of the way of what is done for every record.
    [[gnu::cold]] bool FailNext(std::int64_t place);
    [[gnu::cold]] bool FailType(std::size_t place, std::uint32_t type);
    [[gnu::cold]] bool FailName(std::size_t record, std::int64_t place);
    [[gnu::cold]] bool Fail(std::uint64_t offset, std::string what);

    std::span<const std::byte> image_;
    std::size_t place_ = 0;           ///< of the record (or buffer header) that was decoded last
    std::int32_t distance_ = 0;       ///< from there to the next record; 0: none
    std::uint64_t recordPlaces_ = 0;  ///< multiples of 8 where a record header can be
    std::uint64_t namePlaces_ = 0;    ///< and where a path can start
    std::vector<std::uint64_t> visited_;  ///< one bit for each place where a record can start
    /// Paths that were looked at: records about one key share its path. 0 is no path's place.
    struct KnownName {
        std::size_t place = 0;
        std::size_t units = 0;
    };
    std::array<KnownName, 64> knownNames_{};
    std::optional<DecodeError> error_;
};

}  // namespace zpregmon
