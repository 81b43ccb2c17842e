// Checked reading of one record.
#pragma once

#include "client/event.h"

#include <fmt/format.h>

#include <cstddef>
#include <cstdint>
#include <optional>

namespace zpregmon {

/// What a field says and where it stands, for the message when it is wrong.
struct RecordField {
    std::size_t at;  ///< in the record
    const char* what;
};

/// Reads from one record, of which `bytes` has everything up to the image's end: a record does not
/// say where it ends. Every read is checked and false when what it is about cannot be right.
class RecordReader {
public:
    /// Does not say what is wrong.
    explicit RecordReader(Bytes bytes) : bytes_(bytes) {}
    /// Says in `error` what is wrong; the record is at `place` in the image.
    RecordReader(Bytes bytes, std::size_t place, std::optional<DecodeError>& error)
        : bytes_(bytes), place_(place), error_(&error) {}

    Bytes AllBytes() const { return bytes_; }

    /// A field of the fixed part, which is inside.
    template <typename T = std::uint32_t>
    T Load(std::size_t at) const {
        return LoadField<T>(bytes_.data() + at);
    }

    /// Whether the record has a fixed part of this size.
    bool Has(std::size_t fixed) const {
        return bytes_.size() >= fixed ||
               Fail(0, "the record is cut off after {} bytes, expected at least {}", bytes_.size(),
                    fixed);
    }

    /// `length` bytes at `offset`; `field` said so.
    bool Data(RecordField field, std::size_t offset, std::size_t length, Bytes& data) const {
        if (offset > bytes_.size() || length > bytes_.size() - offset) {
            return Fail(field.at,
                        "{}: {} bytes at {} of the record, expected them before the image's end "
                        "at {}",
                        field.what, length, offset, bytes_.size());
        }
        data = bytes_.subspan(offset, length);
        return true;
    }

    /// Text at `offset`, which is at least `least`.
    bool Text(RecordField field, std::size_t offset, std::size_t least, WireText& text) const {
        if (offset < least || offset >= bytes_.size()) {
            return Fail(field.at,
                        "{}: said to be at {} of the record, expected a place between {} and the "
                        "image's end at {}",
                        field.what, offset, least, bytes_.size());
        }
        const std::size_t units = FindTextEnd(bytes_.subspan(offset));
        if (units == kNoTextEnd) {
            return Fail(offset, "{} has no end, expected a 16-bit zero before the image's end",
                        field.what);
        }
        text = WireText(bytes_.data() + offset, units);
        return true;
    }

    /// The first `captured` bytes, at `offset`, of data that has `size`; `field` said so.
    bool Captured(RecordField field, std::size_t offset, std::uint32_t size, std::uint32_t captured,
                  CapturedData& data) const {
        if (captured > size) {
            return Fail(field.at,
                        "{}: {} bytes captured, expected no more than the {} that there are",
                        field.what, captured, size);
        }
        data.size = size;
        return Data(field, offset, captured, data.captured);
    }

    /// False; `at` is in the record.
    template <typename... Args>
    bool Fail(std::size_t at, fmt::format_string<const Args&...> what, const Args&... args) const {
        if (error_ != nullptr) {
            *error_ = DecodeError{place_ + at, fmt::format(what, args...)};
        }
        return false;
    }

private:
    Bytes bytes_;
    std::size_t place_ = 0;
    std::optional<DecodeError>* error_ = nullptr;
};

}  // namespace zpregmon
