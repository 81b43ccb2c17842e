#include "client/record_decoder.h"

#include "channel/buffer_format.h"

#include <fmt/format.h>

#include <cstring>

namespace zpregmon {

using zpregflt::BufferHeader;
using zpregflt::RecordHeader;

namespace {

/// Records and key paths start on multiples of this.
constexpr std::size_t kAlignment = 8;

/// The number of units before the first zero unit, or nothing when there is none. `text` starts on
/// a multiple of 8, so that four units at a time can be looked at.
std::optional<std::size_t> FindTerminator(std::span<const std::byte> text) {
    constexpr std::uint64_t kOnes = 0x0001000100010001;
    constexpr std::uint64_t kHighBits = 0x8000800080008000;
    std::size_t at = 0;
    for (; at + sizeof(std::uint64_t) <= text.size(); at += sizeof(std::uint64_t)) {
        std::uint64_t units;
        std::memcpy(&units, text.data() + at, sizeof(units));
        // Non-zero exactly when one of the four units is zero.
        if (((units - kOnes) & ~units & kHighBits) != 0) {
            break;
        }
    }
    for (; at + sizeof(char16_t) <= text.size(); at += sizeof(char16_t)) {
        char16_t unit;
        std::memcpy(&unit, text.data() + at, sizeof(unit));
        if (unit == 0) {
            return at / sizeof(char16_t);
        }
    }
    return std::nullopt;
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
}

bool RecordDecoder::Next(Event& event) {
    if (distance_ == 0 || error_) {
        return false;
    }
    const std::int64_t target = static_cast<std::int64_t>(place_) + distance_;
    if (!CheckPlace(target)) {
        return false;
    }
    const auto record = static_cast<std::size_t>(target);
    RecordHeader header;
    std::memcpy(&header, image_.data() + record, sizeof(header));
    if (!DecodeHeader(record, header, event)) {
        return false;
    }
    place_ = record;
    distance_ = header.NextOffset;
    return true;
}

bool RecordDecoder::CheckPlace(std::int64_t place) {
    const auto size = static_cast<std::int64_t>(image_.size());
    const bool inside = place >= static_cast<std::int64_t>(sizeof(BufferHeader)) &&
                        place <= size - static_cast<std::int64_t>(sizeof(RecordHeader));
    const std::uint64_t field = place_ + offsetof(BufferHeader, NextOffset);
    if (!inside) {
        return Fail(field, fmt::format("the next record is said to be at {}, expected a whole "
                                       "record header between {} and the image's end at {}",
                                       place, sizeof(BufferHeader), size));
    }
    if (place % static_cast<std::int64_t>(kAlignment) != 0) {
        return Fail(field, fmt::format("the next record is said to be at {}, expected a multiple "
                                       "of {}",
                                       place, kAlignment));
    }
    if (!Visit(static_cast<std::size_t>(place))) {
        return Fail(field, fmt::format("the chain comes back to the record at {}, expected a "
                                       "record that was not there before",
                                       place));
    }
    return true;
}

bool RecordDecoder::Visit(std::size_t place) {
    const std::size_t slot = place / kAlignment;
    const std::uint64_t bit = std::uint64_t{1} << (slot % 64);
    std::uint64_t& word = visited_[slot / 64];
    const bool isNew = (word & bit) == 0;
    word |= bit;
    return isNew;
}

bool RecordDecoder::DecodeHeader(std::size_t place, const RecordHeader& header, Event& event) {
    const auto type = static_cast<std::uint32_t>(header.Type);
    if (type == 0 || type > zpregflt::kLastRecordType) {
        return Fail(place, fmt::format("record type {}, expected 1 to {}", type,
                                       zpregflt::kLastRecordType));
    }
    event.type = header.Type;
    event.processId = header.ProcessId;
    event.processKey = header.ProcessKey;
    event.systemTime = header.SystemTime;
    event.operations = header.KeyOperations;
    event.offset = place;
    event.key.reset();
    return header.NameOffset == 0 || ReadName(place, header.NameOffset, event);
}

bool RecordDecoder::ReadName(std::size_t record, std::int32_t distance, Event& event) {
    const std::int64_t place = static_cast<std::int64_t>(record) + distance;
    const std::uint64_t field = record + offsetof(RecordHeader, NameOffset);
    if (place < static_cast<std::int64_t>(sizeof(BufferHeader)) ||
        place >= static_cast<std::int64_t>(image_.size())) {
        return Fail(field, fmt::format("the key's path is said to be at {}, expected a place "
                                       "between {} and the image's end at {}",
                                       place, sizeof(BufferHeader), image_.size()));
    }
    if (place % static_cast<std::int64_t>(kAlignment) != 0) {
        return Fail(field, fmt::format("the key's path is said to be at {}, expected a multiple "
                                       "of {}",
                                       place, kAlignment));
    }
    const auto text = image_.subspan(static_cast<std::size_t>(place));
    const std::optional<std::size_t> length = FindTerminator(text);
    if (!length) {
        return Fail(static_cast<std::uint64_t>(place),
                    "the key's path has no end, expected a 16-bit zero before the image's end");
    }
    event.key.emplace(reinterpret_cast<const char16_t*>(text.data()), *length);
    return true;
}

bool RecordDecoder::Fail(std::uint64_t offset, std::string what) {
    error_ = DecodeError{offset, std::move(what)};
    return false;
}

}  // namespace zpregmon
