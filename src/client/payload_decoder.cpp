#include "client/payload_decoder.h"

#include <fmt/format.h>

#include <array>
#include <cstring>

namespace zpregmon {

using zpregflt::FileRecord;
using zpregflt::InformationRecord;
using zpregflt::KeySecuritySetRecord;
using zpregflt::NameRecord;
using zpregflt::SecuritySection;
using zpregflt::TwoNamesRecord;
using zpregflt::ValueEnumeratedRecord;
using zpregflt::ValueQueriedRecord;
using zpregflt::ValueSetRecord;
using zpregflt::ValuesQueriedEntry;
using zpregflt::ValuesQueriedRecord;

namespace {

/// What a field says and where it stands, for the message when it is wrong.
struct Field {
    std::size_t at;  ///< in the record
    const char* what;
};

/// One record from its first byte to the image's end. Every read is checked; the first one that
/// fails says why. What says so is kept out of the way: this is done for every record.
struct RecordReader {
    const std::byte* begin;
    std::size_t size;
    std::size_t record;  ///< where it is in the image
    std::optional<DecodeError>& error;

    /// A field of the fixed part, which is inside.
    template <typename T = std::uint32_t>
    T Load(std::size_t at) const {
        T field;
        std::memcpy(&field, begin + at, sizeof(field));
        return field;
    }

    /// Whether the record has a fixed part of this size.
    bool Has(std::size_t fixed) const { return size >= fixed || CutOff(fixed); }

    /// `length` bytes at `offset`; `field` said so.
    bool Data(Field field, std::size_t offset, std::size_t length, Bytes& data) const {
        if (offset > size || length > size - offset) {
            return Outside(field, offset, length);
        }
        data = Bytes(begin + offset, length);
        return true;
    }

    /// Text at `offset`, which is at least `least`.
    bool Text(Field field, std::size_t offset, std::size_t least, WireText& text) const {
        if (offset < least || offset >= size) {
            return Misplaced(field, offset, least);
        }
        const std::size_t units = FindTextEnd({begin + offset, size - offset});
        if (units == kNoTextEnd) {
            return Endless(field, offset);
        }
        text = WireText(begin + offset, units);
        return true;
    }

    bool Captured(Field field, std::size_t offset, std::uint32_t whole, std::uint32_t captured,
                  CapturedData& data) const {
        data.size = whole;
        return (captured <= whole || TooMuch(field, whole, captured)) &&
               Data(field, offset, captured, data.captured);
    }

    /// Says what is wrong at an offset in the record.
    [[gnu::cold, gnu::noinline]] bool Fail(std::size_t at, std::string what) const {
        error = DecodeError{record + at, std::move(what)};
        return false;
    }

private:
    [[gnu::cold, gnu::noinline]] bool CutOff(std::size_t fixed) const {
        return Fail(0, fmt::format("the record is cut off after {} bytes, expected at least {}",
                                   size, fixed));
    }
    [[gnu::cold, gnu::noinline]] bool Outside(Field field, std::size_t offset,
                                              std::size_t length) const {
        return Fail(field.at, fmt::format("{}: {} bytes at {} of the record, expected them before "
                                          "the image's end at {}",
                                          field.what, length, offset, size));
    }
    [[gnu::cold, gnu::noinline]] bool Misplaced(Field field, std::size_t offset,
                                                std::size_t least) const {
        return Fail(field.at, fmt::format("{}: said to be at {} of the record, expected a place "
                                          "between {} and the image's end at {}",
                                          field.what, offset, least, size));
    }
    [[gnu::cold, gnu::noinline]] bool Endless(Field field, std::size_t offset) const {
        return Fail(offset,
                    fmt::format("{} has no end, expected a 16-bit zero before the image's end",
                                field.what));
    }
    [[gnu::cold, gnu::noinline]] bool TooMuch(Field field, std::uint32_t whole,
                                              std::uint32_t captured) const {
        return Fail(field.at, fmt::format("{}: {} bytes captured, expected no more than the {} "
                                          "that there are",
                                          field.what, captured, whole));
    }
};

bool DecodePrevious(const RecordReader& reader, std::size_t name,
                    std::optional<CapturedData>& data) {
    const auto offset = reader.Load(offsetof(ValueSetRecord, PreviousOffset));
    if (offset % 4 != 0 || offset <= name) {
        return reader.Fail(offsetof(ValueSetRecord, PreviousOffset),
                           fmt::format("the previous data: said to be at {} of the record, "
                                       "expected a multiple of 4 behind the value's name at {}",
                                       offset, name));
    }
    return reader.Captured({offsetof(ValueSetRecord, PreviousCapturedLength), "the previous data"},
                           offset, reader.Load(offsetof(ValueSetRecord, PreviousSize)),
                           reader.Load(offsetof(ValueSetRecord, PreviousCapturedLength)),
                           data.emplace());
}

bool Decode(const RecordReader& reader, ValueSet& set) {
    constexpr std::size_t kData = ValueSetRecord::kDataOffset;
    if (!reader.Has(kData)) {
        return false;
    }
    const auto captured = reader.Load(offsetof(ValueSetRecord, CapturedLength));
    const auto name = reader.Load(offsetof(ValueSetRecord, ValueNameOffset));
    set.type = reader.Load(offsetof(ValueSetRecord, ValueType));
    return reader.Captured({offsetof(ValueSetRecord, CapturedLength), "the data"}, kData,
                           reader.Load(offsetof(ValueSetRecord, DataSize)), captured, set.data) &&
           reader.Text({offsetof(ValueSetRecord, ValueNameOffset), "the value's name"}, name,
                       kData + captured, set.value) &&
           (reader.Load(offsetof(ValueSetRecord, PreviousOffset)) == 0 ||
            DecodePrevious(reader, name, set.previous));
}

bool DecodeName(const RecordReader& reader, const char* what, WireText& name) {
    constexpr std::size_t kAt = NameRecord::kNameOffset;
    return reader.Text({kAt, what}, kAt, kAt, name);
}

bool Decode(const RecordReader& reader, ValueDeleted& deleted) {
    return DecodeName(reader, "the value's name", deleted.value);
}

bool Decode(const RecordReader& reader, KeyRenamed& renamed) {
    return DecodeName(reader, "the new name", renamed.newName);
}

bool DecodeInformation(const RecordReader& reader, const char* what, std::uint32_t& number,
                       Bytes& data) {
    constexpr std::size_t kData = sizeof(InformationRecord);
    if (!reader.Has(kData)) {
        return false;
    }
    number = reader.Load(offsetof(InformationRecord, InformationClass));
    return reader.Data({offsetof(InformationRecord, DataLength), what}, kData,
                       reader.Load(offsetof(InformationRecord, DataLength)), data);
}

bool Decode(const RecordReader& reader, KeyInformation& key) {
    return DecodeInformation(reader, "the information", key.informationClass, key.data);
}

bool Decode(const RecordReader& reader, KeySecurityQueried& queried) {
    return DecodeInformation(reader, "the security descriptor", queried.information,
                             queried.descriptor);
}

bool Decode(const RecordReader& reader, ValueEnumerated& enumerated) {
    constexpr std::size_t kData = ValueEnumeratedRecord::kDataOffset;
    if (!reader.Has(kData)) {
        return false;
    }
    enumerated.index = reader.Load(offsetof(ValueEnumeratedRecord, Index));
    enumerated.informationClass = reader.Load(offsetof(ValueEnumeratedRecord, InformationClass));
    return reader.Data({offsetof(ValueEnumeratedRecord, DataLength), "the information"}, kData,
                       reader.Load(offsetof(ValueEnumeratedRecord, DataLength)), enumerated.data);
}

bool Decode(const RecordReader& reader, ValueQueried& queried) {
    constexpr std::size_t kData = ValueQueriedRecord::kDataOffset;
    if (!reader.Has(kData)) {
        return false;
    }
    const auto length = reader.Load(offsetof(ValueQueriedRecord, DataLength));
    queried.informationClass = reader.Load(offsetof(ValueQueriedRecord, InformationClass));
    return reader.Data({offsetof(ValueQueriedRecord, DataLength), "the information"}, kData, length,
                       queried.data) &&
           reader.Text({offsetof(ValueQueriedRecord, ValueNameOffset), "the value's name"},
                       reader.Load(offsetof(ValueQueriedRecord, ValueNameOffset)),
                       kData + std::size_t{length}, queried.value);
}

constexpr std::size_t EntriesEnd(std::size_t count) {
    return ValuesQueriedRecord::kEntriesOffset + count * sizeof(ValuesQueriedEntry);
}

bool Decode(const RecordReader& reader, ValuesQueried& values) {
    if (!reader.Has(ValuesQueriedRecord::kEntriesOffset)) {
        return false;
    }
    const auto count = reader.Load(offsetof(ValuesQueriedRecord, EntryCount));
    Bytes entries;
    values = ValuesQueried(Bytes(reader.begin, reader.size), count);
    return reader.Data({offsetof(ValuesQueriedRecord, EntryCount), "the entries"},
                       ValuesQueriedRecord::kEntriesOffset, count * sizeof(ValuesQueriedEntry),
                       entries);
}

bool DecodeTwoNames(const RecordReader& reader, const char* firstName, const char* secondName,
                    WireText& first, WireText& second) {
    constexpr std::size_t kFirst = TwoNamesRecord::kFirstNameOffset;
    return reader.Has(kFirst) && reader.Text({kFirst, firstName}, kFirst, kFirst, first) &&
           reader.Text({offsetof(TwoNamesRecord, SecondNameOffset), secondName},
                       reader.Load(offsetof(TwoNamesRecord, SecondNameOffset)),
                       kFirst + (first.size() + 1) * sizeof(char16_t), second);
}

bool Decode(const RecordReader& reader, HiveLoaded& hive) {
    return DecodeTwoNames(reader, "the hive's name", "the hive's file", hive.name, hive.file);
}

bool Decode(const RecordReader& reader, KeyReplaced& replaced) {
    return DecodeTwoNames(reader, "the new file", "the old file", replaced.newFile,
                          replaced.oldFile);
}

bool Decode(const RecordReader& reader, FileOperation& operation) {
    if (!reader.Has(sizeof(FileRecord))) {
        return false;
    }
    operation.options = reader.Load(offsetof(FileRecord, Options));
    const auto offset = reader.Load(offsetof(FileRecord, FileNameOffset));
    if (offset == 0) {
        return true;
    }
    const auto length = reader.Load<std::uint16_t>(offsetof(FileRecord, FileNameLength));
    constexpr Field kName{offsetof(FileRecord, FileNameOffset), "the file's name"};
    if (offset < sizeof(FileRecord) || length % sizeof(char16_t) != 0) {
        return reader.Fail(kName.at, fmt::format("{}: {} bytes at {} of the record, expected "
                                                 "16-bit characters at {} or behind",
                                                 kName.what, length, offset, sizeof(FileRecord)));
    }
    Bytes name;
    if (!reader.Data(kName, offset, length, name)) {
        return false;
    }
    operation.file = WireText(name.data(), name.size() / sizeof(char16_t));
    return true;
}

bool DecodeSection(const RecordReader& reader, Field field, std::optional<SecurityChange>& change) {
    const std::size_t offset = reader.Load<std::uint16_t>(field.at);
    if (offset == 0) {
        return true;
    }
    if (offset < sizeof(KeySecuritySetRecord)) {
        return reader.Fail(field.at,
                           fmt::format("{}: said to be at {} of the record, expected 0, or {} and "
                                       "more",
                                       field.what, offset, sizeof(KeySecuritySetRecord)));
    }
    Bytes header;
    if (!reader.Data(field, offset, sizeof(SecuritySection), header)) {
        return false;
    }
    const auto oldLength =
        reader.Load<std::uint16_t>(offset + offsetof(SecuritySection, OldLength));
    const auto newLength =
        reader.Load<std::uint16_t>(offset + offsetof(SecuritySection, NewLength));
    const std::size_t before = offset + sizeof(SecuritySection);
    SecurityChange& parts = change.emplace();
    return reader.Data({offset, field.what}, before, oldLength, parts.before) &&
           reader.Data({offset + offsetof(SecuritySection, NewLength), field.what},
                       before + oldLength, newLength, parts.after);
}

bool Decode(const RecordReader& reader, KeySecuritySet& set) {
    return reader.Has(sizeof(KeySecuritySetRecord)) &&
           DecodeSection(reader, {offsetof(KeySecuritySetRecord, OwnerOffset), "the owner"},
                         set.owner) &&
           DecodeSection(reader, {offsetof(KeySecuritySetRecord, GroupOffset), "the group"},
                         set.group) &&
           DecodeSection(reader, {offsetof(KeySecuritySetRecord, DaclOffset), "the DACL"},
                         set.dacl) &&
           DecodeSection(reader, {offsetof(KeySecuritySetRecord, SaclOffset), "the SACL"},
                         set.sacl);
}

using Decoder = bool (*)(Bytes image, std::size_t record, Payload& payload,
                         std::optional<DecodeError>& error);

template <typename Kind>
bool DecodeAs(Bytes image, std::size_t record, Payload& payload,
              std::optional<DecodeError>& error) {
    const RecordReader reader{image.data() + record, image.size() - record, record, error};
    return Decode(reader, payload.emplace<Kind>());
}

bool DecodeNothing(Bytes, std::size_t, Payload& payload, std::optional<DecodeError>&) {
    payload.emplace<std::monostate>();
    return true;
}

/// By record type.
constexpr std::array<Decoder, zpregflt::kLastRecordType + 1> kDecoders = {
    DecodeNothing,  // the buffer header, which is no record
    DecodeAs<ValueSet>,
    DecodeAs<ValueDeleted>,
    DecodeAs<KeyInformation>,  // set
    DecodeAs<KeyRenamed>,
    DecodeAs<KeyInformation>,  // of an enumerated subkey
    DecodeAs<ValueEnumerated>,
    DecodeAs<KeyInformation>,  // queried
    DecodeAs<ValueQueried>,
    DecodeAs<ValuesQueried>,
    DecodeAs<HiveLoaded>,
    DecodeAs<FileOperation>,  // save
    DecodeAs<KeySecuritySet>,
    DecodeAs<KeySecurityQueried>,
    DecodeAs<FileOperation>,  // restore
    DecodeAs<KeyReplaced>,
    DecodeNothing,  // flushed
    DecodeNothing,  // hive unloaded
    DecodeNothing,  // handle closed
    DecodeNothing,  // deleted
    DecodeNothing,  // name queried
    DecodeNothing,  // created
};

}  // namespace

QueriedValue ValuesQueried::operator[](std::uint32_t index) const {
    ValuesQueriedEntry entry;
    std::memcpy(&entry, record_.data() + EntriesEnd(index), sizeof(entry));
    const std::size_t least = EntriesEnd(count_);
    QueriedValue value;
    value.type = entry.ValueType;
    value.size = entry.DataLength;
    if (entry.NameOffset >= least && entry.NameOffset < record_.size()) {
        const std::size_t units = FindTextEnd(record_.subspan(entry.NameOffset));
        if (units != kNoTextEnd) {
            value.value = WireText(record_.data() + entry.NameOffset, units);
        }
    }
    if (entry.DataOffset >= least && entry.DataOffset <= record_.size() &&
        entry.DataLength <= record_.size() - entry.DataOffset) {
        value.data = record_.subspan(entry.DataOffset, entry.DataLength);
    }
    return value;
}

bool DecodePayload(Bytes image, std::size_t record, Event& event,
                   std::optional<DecodeError>& error) {
    return kDecoders[static_cast<std::size_t>(event.type)](image, record, event.payload, error);
}

}  // namespace zpregmon
