#include "client/record_decoder.h"

#include "channel/buffer_format.h"
#include "client/payload_decoder.h"

#include <fmt/format.h>

#include <cstring>

namespace zpregmon {

using zpregflt::BufferHeader;
using zpregflt::RecordHeader;

namespace {

/// Records and key paths start on multiples of this.
constexpr std::size_t kAlignment = 8;

/// Whether one of the first `places` places behind the buffer header is meant.
bool IsPlace(std::int64_t place, std::uint64_t places) {
    const std::uint64_t behind = static_cast<std::uint64_t>(place) - sizeof(BufferHeader);
    return behind % kAlignment == 0 && behind / kAlignment < places;
}

template <typename T>
T Load(const std::byte* record, std::size_t offset) {
    T field;
    std::memcpy(&field, record + offset, sizeof(field));
    return field;
}

/// False: there is no such type.
bool DecodeHeader(const std::byte* record, Event& event) {
    const auto type = Load<std::uint32_t>(record, offsetof(RecordHeader, Type));
    event.type = static_cast<zpregflt::RecordType>(type);
    event.processId = Load<std::uint32_t>(record, offsetof(RecordHeader, ProcessId));
    event.processKey = Load<std::uint64_t>(record, offsetof(RecordHeader, ProcessKey));
    event.systemTime = Load<std::uint64_t>(record, offsetof(RecordHeader, SystemTime));
    event.operations = Load<zpregflt::OperationMask>(record, offsetof(RecordHeader, KeyOperations));
    return type - 1 < zpregflt::kLastRecordType;
}

}  // namespace

RecordDecoder::RecordDecoder(std::span<const std::byte> image) : image_(image) {
    if (reinterpret_cast<std::uintptr_t>(image.data()) % kAlignment != 0) {
        Fail(0, "the image does not start at a multiple of 8 in memory");
        return;
    }
    BufferHeader header;
    if (image.size() < sizeof(header)) {
        Fail(0, fmt::format("the image has {} bytes, expected a buffer header of {}", image.size(),
                            sizeof(header)));
        return;
    }
    std::memcpy(&header, image.data(), sizeof(header));
    if (header.Type != 0) {
        Fail(0, fmt::format("type {}, expected 0: a buffer header", header.Type));
        return;
    }
    distance_ = header.NextOffset;
    visited_.resize(image.size() / (kAlignment * 64) + 1);
    namePlaces_ = (image.size() - sizeof(header) + kAlignment - 1) / kAlignment;
    if (const std::size_t least = sizeof(header) + sizeof(RecordHeader); image.size() >= least) {
        recordPlaces_ = (image.size() - least) / kAlignment + 1;
    }
}

inline bool RecordDecoder::Visit(std::size_t place) {
    const std::size_t slot = place / kAlignment;
    const std::uint64_t bit = std::uint64_t{1} << (slot % 64);
    std::uint64_t& word = visited_[slot / 64];
    const bool isNew = (word & bit) == 0;
    word |= bit;
    return isNew;
}

inline bool RecordDecoder::ReadName(std::size_t record, std::int32_t distance, Event& event) {
    const std::int64_t target = static_cast<std::int64_t>(record) + distance;
    if (!IsPlace(target, namePlaces_)) {
        return FailName(record, target);
    }
    const auto place = static_cast<std::size_t>(target);
    const KnownName& known = knownNames_[place / kAlignment % knownNames_.size()];
    if (known.place != place && !LookUpName(place)) {
        return false;
    }
    event.key.emplace(reinterpret_cast<const char16_t*>(image_.data() + place), known.units);
    return true;
}

bool RecordDecoder::Next(Event& event) {
    if (distance_ == 0 || error_) {
        return false;
    }
    const std::int64_t target = static_cast<std::int64_t>(place_) + distance_;
    const auto place = static_cast<std::size_t>(target);
    if (!IsPlace(target, recordPlaces_) || !Visit(place)) {
        return FailNext(target);
    }
    const std::byte* const record = image_.data() + place;
    if (!DecodeHeader(record, event)) {
        return FailType(place, Load<std::uint32_t>(record, offsetof(RecordHeader, Type)));
    }
    event.offset = place;
    const auto name = Load<std::int32_t>(record, offsetof(RecordHeader, NameOffset));
    if (name == 0) {
        event.key.reset();
    } else if (!ReadName(place, name, event)) {
        return false;
    }
    place_ = place;
    distance_ = Load<std::int32_t>(record, offsetof(RecordHeader, NextOffset));
    return DecodePayload(image_, place, event, error_);  // last: after a failure nothing goes on
}

bool RecordDecoder::LookUpName(std::size_t place) {
    const std::size_t units = FindTextEnd(image_.subspan(place));
    knownNames_[place / kAlignment % knownNames_.size()] = {place, units};
    return units != kNoTextEnd ||
           Fail(place, "the key's path has no end, expected a 16-bit zero before the image's end");
}

bool RecordDecoder::FailNext(std::int64_t place) {
    const std::uint64_t field = place_ + offsetof(BufferHeader, NextOffset);
    if (place % static_cast<std::int64_t>(kAlignment) != 0) {
        return Fail(field, fmt::format("the next record is said to be at {}, expected a multiple "
                                       "of {}",
                                       place, kAlignment));
    }
    if (IsPlace(place, recordPlaces_)) {
        return Fail(field, fmt::format("the chain comes back to the record at {}, expected a "
                                       "record that was not there before",
                                       place));
    }
    return Fail(field, fmt::format("the next record is said to be at {}, expected a whole record "
                                   "header between {} and the image's end at {}",
                                   place, sizeof(BufferHeader), image_.size()));
}

bool RecordDecoder::FailType(std::size_t place, std::uint32_t type) {
    return Fail(place,
                fmt::format("record type {}, expected 1 to {}", type, zpregflt::kLastRecordType));
}

bool RecordDecoder::FailName(std::size_t record, std::int64_t place) {
    const std::uint64_t field = record + offsetof(RecordHeader, NameOffset);
    if (place % static_cast<std::int64_t>(kAlignment) != 0) {
        return Fail(field, fmt::format("the key's path is said to be at {}, expected a multiple "
                                       "of {}",
                                       place, kAlignment));
    }
    return Fail(field, fmt::format("the key's path is said to be at {}, expected a place between "
                                   "{} and the image's end at {}",
                                   place, sizeof(BufferHeader), image_.size()));
}

bool RecordDecoder::Fail(std::uint64_t offset, std::string what) {
    error_ = DecodeError{offset, std::move(what)};
    return false;
}

}  // namespace zpregmon
