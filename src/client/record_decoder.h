// Walks the image of an event buffer and yields its records as events.
#pragma once

#include "client/event.h"

#include <array>
#include <cstddef>
#include <cstdint>
#include <optional>
#include <vector>

namespace zpregmon {

/// Trusts no byte of the image: every offset and length is checked before it is followed, a chain
/// that meets itself again is an error, and so is text that does not end inside the image. Copies
/// nothing: the image stays the caller's, must start at a multiple of 8 and must not change while
/// events of it are in use.
class RecordDecoder {
public:
    explicit RecordDecoder(Bytes image);

    /// The next record of the chain. False at its end and at the first damage (see Error): then
    /// nothing may be asked of the event.
    bool Next(Event& event);
    const std::optional<DecodeError>& Error() const { return error_; }

private:
    /// A path that was looked at: records about one key share its path.
    struct KnownPath {
        std::size_t place = std::size_t{1} << 63;  ///< at first where no distance leads
        std::size_t units = 0;
    };

    /// What stands in a field of the record (or buffer header) at `place`. It may lead anywhere:
    /// places are computed modulo 2^64 and then checked.
    std::size_t Distance(std::size_t place, std::size_t field) const;
    std::u16string_view Path(const KnownPath& known) const;
    /// Marks a place where a record starts, and says whether none did there before. A chain that
    /// has only gone forwards so far was at none twice: its places are marked when it turns back.
    bool Visit(std::size_t place);
    bool Mark(std::size_t place);
    /// The rest of Next for the record at `place`, which was not there before.
    bool DecodeAt(std::size_t place, Event& event);
    /// The rest of Next for a chain that turns back to this place or did before.
    [[gnu::noinline]] bool NextBehindTurn(std::size_t place, Event& event);
    /// The rest of Next for a record whose path, at `place`, is not among the known ones.
    [[gnu::noinline]] bool DecodeWithNewPath(std::size_t place, Event& event);
    /// Checks the payload of the record decoded last, and says what is wrong with it.
    [[gnu::noinline]] bool CheckAndExplain();
    // These say what is wrong and return false; out of the way of what is done for every record.
    [[gnu::cold, gnu::noinline]] bool FailNext(std::size_t place);
    [[gnu::cold, gnu::noinline]] bool FailType();
    [[gnu::cold, gnu::noinline]] bool FailPath(std::size_t place);
    [[gnu::cold, gnu::noinline]] bool Fail(std::uint64_t offset, std::string what);

    Bytes image_;
    std::size_t place_ = 0;           ///< of the record (or buffer header) that was decoded last
    std::uint64_t recordPlaces_ = 0;  ///< multiples of 8 where a record header can be
    std::uint64_t pathPlaces_ = 0;    ///< and where a path can start
    bool turnedBack_ = false;         ///< the chain, somewhere before
    std::vector<std::uint64_t> visited_;  ///< one bit for each place where a record can start
    std::array<KnownPath, 64> knownPaths_{};
    std::optional<DecodeError> error_;
};

}  // namespace zpregmon
