#include "client/record_decoder.h"

#include "channel/buffer_format.h"
#include "client/payload_decoder.h"

#include <fmt/format.h>

#include <bit>

namespace zpregmon {

using zpregflt::BufferHeader;
using zpregflt::RecordHeader;
using zpregflt::RecordType;

namespace {

/// Records and key paths start on multiples of this.
constexpr std::size_t kAlignment = 8;

/// Buffers come from other processors' caches. Most records lie behind each other: what is this
/// many bytes ahead is wanted in three records or so.
constexpr std::size_t kReadAhead = 512;

/// The number of the place that is meant, counted from behind the buffer header; where no record
/// or path can start at all, beyond every place.
std::uint64_t PlaceNumber(std::size_t place) {
    static_assert(kAlignment == 1 << 3);
    return std::rotr(static_cast<std::uint64_t>(place - sizeof(BufferHeader)), 3);
}

/// Of a place in front of the image, how far in front.
std::int64_t Signed(std::size_t place) {
    return static_cast<std::int64_t>(place);
}

}  // namespace

RecordDecoder::RecordDecoder(Bytes image) : image_(image) {
    if (reinterpret_cast<std::uintptr_t>(image.data()) % kAlignment != 0) {
        Fail(0, "the image does not start at a multiple of 8 in memory");
        return;
    }
    if (image.size() < sizeof(BufferHeader)) {
        Fail(0, fmt::format("the image has {} bytes, expected a buffer header of {}", image.size(),
                            sizeof(BufferHeader)));
        return;
    }
    if (const auto type = LoadField<std::uint32_t>(image.data()); type != 0) {
        Fail(0, fmt::format("type {}, expected 0: a buffer header", type));
        return;
    }
    pathPlaces_ = (image.size() - sizeof(BufferHeader) + kAlignment - 1) / kAlignment;
    if (const std::size_t least = sizeof(BufferHeader) + sizeof(RecordHeader);
        image.size() >= least) {
        recordPlaces_ = (image.size() - least) / kAlignment + 1;
    }
}

inline std::size_t RecordDecoder::Distance(std::size_t place, std::size_t field) const {
    return static_cast<std::size_t>(LoadField<std::int32_t>(image_.data() + place + field));
}

inline std::u16string_view RecordDecoder::Path(const KnownPath& known) const {
    return {reinterpret_cast<const char16_t*>(image_.data() + known.place), known.units};
}

bool RecordDecoder::Mark(std::size_t place) {
    const std::uint64_t number = PlaceNumber(place);
    const std::uint64_t bit = std::uint64_t{1} << (number % 64);
    std::uint64_t& word = visited_[number / 64];
    const bool isNew = (word & bit) == 0;
    word |= bit;
    return isNew;
}

bool RecordDecoder::Visit(std::size_t place) {
    if (!turnedBack_) {
        turnedBack_ = true;
        visited_.resize(recordPlaces_ / 64 + 1);
        for (std::size_t before = 0; before != place_;) {
            before += Distance(before, offsetof(BufferHeader, NextOffset));
            Mark(before);
        }
    }
    return Mark(place);
}

// Flat: a third of the time would go into calls, and most of the checks know half of what they ask.
[[gnu::flatten]] bool RecordDecoder::Next(Event& event) {
    if (error_) {
        return false;
    }
    const std::size_t distance = Distance(place_, offsetof(BufferHeader, NextOffset));
    if (distance == 0) {
        return false;
    }
    const std::size_t place = place_ + distance;
    if (PlaceNumber(place) >= recordPlaces_) {
        return FailNext(place);
    }
    if (place <= place_ || turnedBack_) [[unlikely]] {
        return NextBehindTurn(place, event);
    }
    return DecodeAt(place, event);
}

[[gnu::flatten]] bool RecordDecoder::NextBehindTurn(std::size_t place, Event& event) {
    return Visit(place) ? DecodeAt(place, event) : FailNext(place);
}

inline bool RecordDecoder::DecodeAt(std::size_t place, Event& event) {
    place_ = place;
    const Bytes record = image_.subspan(place);
    __builtin_prefetch(record.data() + kReadAhead);
    const auto type = LoadField<RecordType>(record.data());
    if (static_cast<std::uint32_t>(type) - 1 >= zpregflt::kLastRecordType) {
        return FailType();
    }
    std::u16string_view key;
    if (const std::size_t toKey = Distance(place, offsetof(RecordHeader, NameOffset))) {
        const std::size_t keyPlace = place + toKey;
        const KnownPath& known = knownPaths_[keyPlace / kAlignment % knownPaths_.size()];
        if (known.place != keyPlace) {
            return DecodeWithNewPath(keyPlace, event);
        }
        key = Path(known);
    }
    event = Event(record, key);
    return CheckPayload(RecordReader(record), type) || CheckAndExplain();
}

bool RecordDecoder::DecodeWithNewPath(std::size_t place, Event& event) {
    if (PlaceNumber(place) >= pathPlaces_) {
        return FailPath(place);
    }
    const std::size_t units = FindTextEnd(image_.subspan(place));
    if (units == kNoTextEnd) {
        return Fail(place,
                    "the key's path has no end, expected a 16-bit zero before the image's end");
    }
    KnownPath& known = knownPaths_[place / kAlignment % knownPaths_.size()];
    known = {place, units};
    event = Event(image_.subspan(place_), Path(known));
    return CheckAndExplain();
}

bool RecordDecoder::CheckAndExplain() {
    const Bytes record = image_.subspan(place_);
    return CheckPayload(RecordReader(record, place_, error_), LoadField<RecordType>(record.data()));
}

bool RecordDecoder::FailNext(std::size_t place) {
    const std::uint64_t field = place_ + offsetof(BufferHeader, NextOffset);
    if (place % kAlignment != 0) {
        return Fail(field, fmt::format("the next record is said to be at {}, expected a multiple "
                                       "of {}",
                                       Signed(place), kAlignment));
    }
    if (PlaceNumber(place) < recordPlaces_) {
        return Fail(field, fmt::format("the chain comes back to the record at {}, expected a "
                                       "record that was not there before",
                                       place));
    }
    return Fail(field, fmt::format("the next record is said to be at {}, expected a whole record "
                                   "header between {} and the image's end at {}",
                                   Signed(place), sizeof(BufferHeader), image_.size()));
}

bool RecordDecoder::FailType() {
    return Fail(place_, fmt::format("record type {}, expected 1 to {}",
                                    LoadField<std::uint32_t>(image_.data() + place_),
                                    zpregflt::kLastRecordType));
}

bool RecordDecoder::FailPath(std::size_t place) {
    const std::uint64_t field = place_ + offsetof(RecordHeader, NameOffset);
    if (place % kAlignment != 0) {
        return Fail(field, fmt::format("the key's path is said to be at {}, expected a multiple "
                                       "of {}",
                                       Signed(place), kAlignment));
    }
    return Fail(field, fmt::format("the key's path is said to be at {}, expected a place between "
                                   "{} and the image's end at {}",
                                   Signed(place), sizeof(BufferHeader), image_.size()));
}

bool RecordDecoder::Fail(std::uint64_t offset, std::string what) {
    error_ = DecodeError{offset, std::move(what)};
    return false;
}

}  // namespace zpregmon
