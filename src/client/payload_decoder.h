// Decodes what records have behind their header.
//
// Every Decode reads one kind of payload, and is false when that cannot be right. It is called
// twice: when the decoder reaches the record, only to check it, and when somebody asks the event.
// All of it is inline, so that nothing is left of the first call but the checks.
#pragma once

#include "client/event.h"
#include "client/record_reader.h"

#include <cstddef>
#include <optional>

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

inline bool DecodePrevious(const RecordReader& reader, std::size_t name,
                           std::optional<CapturedData>& data) {
    const auto offset = reader.Load(offsetof(ValueSetRecord, PreviousOffset));
    if (offset % 4 != 0 || offset <= name) {
        return reader.Fail(offsetof(ValueSetRecord, PreviousOffset),
                           "the previous data: said to be at {} of the record, "
                           "expected a multiple of 4 behind the value's name at {}",
                           offset, name);
    }
    return reader.Captured({offsetof(ValueSetRecord, PreviousCapturedLength), "the previous data"},
                           offset, reader.Load(offsetof(ValueSetRecord, PreviousSize)),
                           reader.Load(offsetof(ValueSetRecord, PreviousCapturedLength)),
                           data.emplace());
}

inline bool Decode(const RecordReader& reader, ValueSet& set) {
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

inline bool DecodeName(const RecordReader& reader, const char* what, WireText& name) {
    constexpr std::size_t kAt = NameRecord::kNameOffset;
    return reader.Text({kAt, what}, kAt, kAt, name);
}

inline bool Decode(const RecordReader& reader, ValueDeleted& deleted) {
    return DecodeName(reader, "the value's name", deleted.value);
}

inline bool Decode(const RecordReader& reader, KeyRenamed& renamed) {
    return DecodeName(reader, "the new name", renamed.newName);
}

inline bool DecodeInformation(const RecordReader& reader, const char* what, std::uint32_t& number,
                              Bytes& data) {
    constexpr std::size_t kData = sizeof(InformationRecord);
    if (!reader.Has(kData)) {
        return false;
    }
    number = reader.Load(offsetof(InformationRecord, InformationClass));
    return reader.Data({offsetof(InformationRecord, DataLength), what}, kData,
                       reader.Load(offsetof(InformationRecord, DataLength)), data);
}

inline bool Decode(const RecordReader& reader, KeyInformation& key) {
    return DecodeInformation(reader, "the information", key.informationClass, key.data);
}

inline bool Decode(const RecordReader& reader, KeySecurityQueried& queried) {
    return DecodeInformation(reader, "the security descriptor", queried.information,
                             queried.descriptor);
}

inline bool Decode(const RecordReader& reader, ValueEnumerated& enumerated) {
    constexpr std::size_t kData = ValueEnumeratedRecord::kDataOffset;
    if (!reader.Has(kData)) {
        return false;
    }
    enumerated.index = reader.Load(offsetof(ValueEnumeratedRecord, Index));
    enumerated.informationClass = reader.Load(offsetof(ValueEnumeratedRecord, InformationClass));
    return reader.Data({offsetof(ValueEnumeratedRecord, DataLength), "the information"}, kData,
                       reader.Load(offsetof(ValueEnumeratedRecord, DataLength)), enumerated.data);
}

inline bool Decode(const RecordReader& reader, ValueQueried& queried) {
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

inline constexpr std::size_t EntriesEnd(std::size_t count) {
    return ValuesQueriedRecord::kEntriesOffset + count * sizeof(ValuesQueriedEntry);
}

inline bool Decode(const RecordReader& reader, ValuesQueried& values) {
    if (!reader.Has(ValuesQueriedRecord::kEntriesOffset)) {
        return false;
    }
    const auto count = reader.Load(offsetof(ValuesQueriedRecord, EntryCount));
    Bytes entries;
    if (!reader.Data({offsetof(ValuesQueriedRecord, EntryCount), "the entries"},
                     ValuesQueriedRecord::kEntriesOffset, count * sizeof(ValuesQueriedEntry),
                     entries)) {
        return false;
    }
    values = ValuesQueried(reader.AllBytes(), count);
    return true;
}

inline bool DecodeTwoNames(const RecordReader& reader, const char* firstName,
                           const char* secondName, WireText& first, WireText& second) {
    constexpr std::size_t kFirst = TwoNamesRecord::kFirstNameOffset;
    return reader.Has(kFirst) && reader.Text({kFirst, firstName}, kFirst, kFirst, first) &&
           reader.Text({offsetof(TwoNamesRecord, SecondNameOffset), secondName},
                       reader.Load(offsetof(TwoNamesRecord, SecondNameOffset)),
                       kFirst + (first.size() + 1) * sizeof(char16_t), second);
}

inline bool Decode(const RecordReader& reader, HiveLoaded& hive) {
    return DecodeTwoNames(reader, "the hive's name", "the hive's file", hive.name, hive.file);
}

inline bool Decode(const RecordReader& reader, KeyReplaced& replaced) {
    return DecodeTwoNames(reader, "the new file", "the old file", replaced.newFile,
                          replaced.oldFile);
}

inline bool Decode(const RecordReader& reader, FileOperation& operation) {
    if (!reader.Has(sizeof(FileRecord))) {
        return false;
    }
    operation.options = reader.Load(offsetof(FileRecord, Options));
    const auto offset = reader.Load(offsetof(FileRecord, FileNameOffset));
    if (offset == 0) {
        return true;
    }
    const auto length = reader.Load<std::uint16_t>(offsetof(FileRecord, FileNameLength));
    constexpr RecordField kName{offsetof(FileRecord, FileNameOffset), "the file's name"};
    if (offset < sizeof(FileRecord) || length % sizeof(char16_t) != 0) {
        return reader.Fail(kName.at,
                           "{}: {} bytes at {} of the record, expected "
                           "16-bit characters at {} or behind",
                           kName.what, length, offset, sizeof(FileRecord));
    }
    Bytes name;
    if (!reader.Data(kName, offset, length, name)) {
        return false;
    }
    operation.file = WireText(name.data(), name.size() / sizeof(char16_t));
    return true;
}

inline bool DecodeSection(const RecordReader& reader, RecordField field,
                          std::optional<SecurityChange>& change) {
    const std::size_t offset = reader.Load<std::uint16_t>(field.at);
    if (offset == 0) {
        return true;
    }
    if (offset < sizeof(KeySecuritySetRecord)) {
        return reader.Fail(field.at,
                           "{}: said to be at {} of the record, expected 0, or {} and "
                           "more",
                           field.what, offset, sizeof(KeySecuritySetRecord));
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

inline bool Decode(const RecordReader& reader, KeySecuritySet& set) {
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

inline bool Decode(const RecordReader&, NoPayload&) {
    return true;
}

/// Whether the payload of a record of this type is sound.
inline bool CheckPayload(const RecordReader& reader, zpregflt::RecordType type) {
    return WithPayload(type, [&]<typename Payload>(std::type_identity<Payload>) {
        Payload payload;
        return Decode(reader, payload);
    });
}

}  // namespace zpregmon
