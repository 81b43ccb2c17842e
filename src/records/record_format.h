// Event records as they lie in event buffers and dump files.
//
// Little-endian. Offsets are distances in bytes from the record's own first byte, never addresses.
// Records, and key paths beside them, start on multiples of 8 from the buffer's start.
#pragma once

#include <cstddef>
#include <cstdint>

namespace zpregflt {

enum class RecordType : std::uint32_t {
    kBufferHeader = 0,  ///< never a record: opens every buffer
    kValueSet = 1,
    kValueDeleted = 2,
    kKeyInformationSet = 3,
    kKeyRenamed = 4,
    kSubkeyEnumerated = 5,
    kValueEnumerated = 6,
    kKeyQueried = 7,
    kValueQueried = 8,
    kValuesQueried = 9,
    kHiveLoaded = 10,
    kKeySaved = 11,
    kKeySecuritySet = 12,
    kKeySecurityQueried = 13,
    kKeyRestored = 14,
    kKeyReplaced = 15,
    kKeyFlushed = 16,
    kHiveUnloaded = 17,
    kKeyHandleClosed = 18,
    kKeyDeleted = 19,
    kKeyNameQueried = 20,
    kKeyCreated = 21,
};
inline constexpr std::uint32_t kLastRecordType = 21;

/// Set of registry operations. The pre- and post-notification of one operation share a bit.
using OperationMask = std::uint32_t;

namespace operation {
inline constexpr OperationMask kDeleteKey = 0x1;
inline constexpr OperationMask kSetValueKey = 0x2;
inline constexpr OperationMask kDeleteValueKey = 0x4;
inline constexpr OperationMask kSetInformationKey = 0x8;
inline constexpr OperationMask kRenameKey = 0x10;
inline constexpr OperationMask kEnumerateKey = 0x20;
inline constexpr OperationMask kEnumerateValueKey = 0x40;
inline constexpr OperationMask kQueryKey = 0x80;
inline constexpr OperationMask kQueryValueKey = 0x100;
inline constexpr OperationMask kQueryMultipleValueKey = 0x200;
inline constexpr OperationMask kCreateKeyEx = 0x400;
inline constexpr OperationMask kOpenKeyEx = 0x800;
inline constexpr OperationMask kFlushKey = 0x1000;
inline constexpr OperationMask kLoadKey = 0x2000;
inline constexpr OperationMask kUnLoadKey = 0x4000;
inline constexpr OperationMask kQueryKeySecurity = 0x8000;
inline constexpr OperationMask kSetKeySecurity = 0x10000;
inline constexpr OperationMask kRestoreKey = 0x20000;
inline constexpr OperationMask kSaveKey = 0x40000;
inline constexpr OperationMask kReplaceKey = 0x80000;
inline constexpr OperationMask kKeyHandleClose = 0x100000;
inline constexpr OperationMask kQueryKeyName = 0x200000;
}  // namespace operation

/// Number of operation bits, and their names by bit number.
inline constexpr std::size_t kOperationCount = 22;
inline constexpr const char* kOperationNames[kOperationCount] = {
    "DeleteKey",         "SetValueKey",
    "DeleteValueKey",    "SetInformationKey",
    "RenameKey",         "EnumerateKey",
    "EnumerateValueKey", "QueryKey",
    "QueryValueKey",     "QueryMultipleValueKey",
    "CreateKeyEx",       "OpenKeyEx",
    "FlushKey",          "LoadKey",
    "UnLoadKey",         "QueryKeySecurity",
    "SetKeySecurity",    "RestoreKey",
    "SaveKey",           "ReplaceKey",
    "KeyHandleClose",    "QueryKeyName",
};

/// Opens every record; the fields of the record's type follow at offset 40.
///
///      0       4       8       12      16              24              32      36      40
///     | Type  | Next  | Pid   |   -   | ProcessKey    | SystemTime    | KeyOps| Name  |
struct RecordHeader {
    RecordType Type;
    /// Distance to the record committed after this one in the same buffer; 0 for the last. Negative
    /// where commit order is not address order.
    std::int32_t NextOffset;
    /// Low 32 bits of the id of the process that opened or created the key object.
    std::uint32_t ProcessId;
    std::uint32_t Reserved;  ///< not written
    std::uint64_t ProcessKey;
    /// 100-nanosecond intervals since 1 January 1601 (UTC).
    std::uint64_t SystemTime;
    /// Every operation that has passed through the key object, this one included.
    OperationMask KeyOperations;
    /// Distance to the key's path in the same buffer, UTF-16 ending in a 16-bit zero; 0: no name.
    std::int32_t NameOffset;
};
static_assert(sizeof(RecordHeader) == 40);
static_assert(offsetof(RecordHeader, Type) == 0);
static_assert(offsetof(RecordHeader, NextOffset) == 4);
static_assert(offsetof(RecordHeader, ProcessId) == 8);
static_assert(offsetof(RecordHeader, Reserved) == 12);
static_assert(offsetof(RecordHeader, ProcessKey) == 16);
static_assert(offsetof(RecordHeader, SystemTime) == 24);
static_assert(offsetof(RecordHeader, KeyOperations) == 32);
static_assert(offsetof(RecordHeader, NameOffset) == 36);

/// Value set, type 1. The data as set follows at kDataOffset, then the value's name and, when
/// PreviousOffset is not 0, the previous data, at the offsets given.
struct ValueSetRecord {
    RecordHeader Header;
    std::uint32_t ValueNameOffset;  ///< UTF-16 ending in a 16-bit zero
    std::uint32_t ValueType;        ///< as set
    std::uint32_t DataSize;         ///< bytes, as set
    std::uint32_t CapturedLength;   ///< bytes of it in the record; 0 when it could not be read
    std::uint32_t PreviousOffset;   ///< multiple of 4; 0: no previous data
    // The next two are written only with previous data.
    std::uint32_t PreviousSize;
    std::uint32_t PreviousCapturedLength;

    static constexpr std::uint32_t kDataOffset = 68;
};
static_assert(offsetof(ValueSetRecord, ValueNameOffset) == 40);
static_assert(offsetof(ValueSetRecord, ValueType) == 44);
static_assert(offsetof(ValueSetRecord, DataSize) == 48);
static_assert(offsetof(ValueSetRecord, CapturedLength) == 52);
static_assert(offsetof(ValueSetRecord, PreviousOffset) == 56);
static_assert(offsetof(ValueSetRecord, PreviousSize) == 60);
static_assert(offsetof(ValueSetRecord, PreviousCapturedLength) == 64);
// The structure ends in padding; the record's data begins before that.
static_assert(ValueSetRecord::kDataOffset == offsetof(ValueSetRecord, PreviousCapturedLength) + 4);

/// Value deleted, type 2, and key renamed, type 4: the value's name, or the new name as the caller
/// gave it, follows the header: UTF-16 ending in a 16-bit zero.
struct NameRecord {
    RecordHeader Header;

    static constexpr std::uint32_t kNameOffset = 40;
};
static_assert(sizeof(NameRecord) == NameRecord::kNameOffset);

/// One block of information that the caller gave or was given; it follows the structure. Key
/// information set, type 3; subkey enumerated, type 5; key queried, type 7; key security queried,
/// type 13, with a self-relative security descriptor.
struct InformationRecord {
    RecordHeader Header;
    std::uint32_t InformationClass;  ///< of type 13: the parts that were asked for
    std::uint32_t DataLength;        ///< bytes; 0 when it could not be read
};
static_assert(sizeof(InformationRecord) == 48);
static_assert(offsetof(InformationRecord, InformationClass) == 40);
static_assert(offsetof(InformationRecord, DataLength) == 44);

/// Value enumerated, type 6. What the caller was given follows at kDataOffset.
struct ValueEnumeratedRecord {
    RecordHeader Header;
    std::uint32_t Index;
    std::uint32_t InformationClass;
    std::uint32_t DataLength;  ///< bytes; 0 when it could not be read

    static constexpr std::uint32_t kDataOffset = 52;
};
static_assert(offsetof(ValueEnumeratedRecord, Index) == 40);
static_assert(offsetof(ValueEnumeratedRecord, InformationClass) == 44);
static_assert(offsetof(ValueEnumeratedRecord, DataLength) == 48);

/// Value queried, type 8. What the caller was given follows at kDataOffset, the value's name at the
/// offset given.
struct ValueQueriedRecord {
    RecordHeader Header;
    std::uint32_t ValueNameOffset;  ///< multiple of 4; UTF-16 ending in a 16-bit zero
    std::uint32_t InformationClass;
    std::uint32_t DataLength;  ///< bytes; 0 when it could not be read

    static constexpr std::uint32_t kDataOffset = 52;
};
static_assert(offsetof(ValueQueriedRecord, ValueNameOffset) == 40);
static_assert(offsetof(ValueQueriedRecord, InformationClass) == 44);
static_assert(offsetof(ValueQueriedRecord, DataLength) == 48);

/// One value of a ValuesQueriedRecord. Offsets count from the record's first byte.
struct ValuesQueriedEntry {
    std::uint32_t DataLength;
    std::uint32_t DataOffset;
    std::uint32_t ValueType;
    std::uint32_t NameOffset;  ///< UTF-16 ending in a 16-bit zero
};
static_assert(sizeof(ValuesQueriedEntry) == 16);
static_assert(offsetof(ValuesQueriedEntry, DataLength) == 0);
static_assert(offsetof(ValuesQueriedEntry, DataOffset) == 4);
static_assert(offsetof(ValuesQueriedEntry, ValueType) == 8);
static_assert(offsetof(ValuesQueriedEntry, NameOffset) == 12);

/// Several values queried, type 9. The entries follow at kEntriesOffset, behind them the names, and
/// from the next multiple of 4 on the buffer of data that the caller was given.
struct ValuesQueriedRecord {
    RecordHeader Header;
    std::uint32_t EntryCount;

    static constexpr std::uint32_t kEntriesOffset = 44;
};
static_assert(offsetof(ValuesQueriedRecord, EntryCount) == 40);

/// Hive loaded, type 10: the path under which it is loaded and its file. Key replaced by a file,
/// type 15: the new file and the old one. Both are UTF-16 ending in a 16-bit zero.
struct TwoNamesRecord {
    RecordHeader Header;
    std::uint32_t SecondNameOffset;

    static constexpr std::uint32_t kFirstNameOffset = 44;
};
static_assert(offsetof(TwoNamesRecord, SecondNameOffset) == 40);

/// Key saved to a file, type 11, and key restored from a file, type 14. From kNameInformationOffset
/// on lies the file's name as the object manager writes it: a counted string, then its characters.
struct FileRecord {
    RecordHeader Header;
    std::uint32_t Options;         ///< the format of a save, the flags of a restore
    std::uint32_t FileNameOffset;  ///< 0: the name could not be written
    std::uint16_t FileNameLength;  ///< bytes
    std::uint16_t FileNameMaximumLength;
    std::uint32_t Gap;              ///< of no meaning
    std::uint64_t FileNameAddress;  ///< in the driver's address space: of no use outside it

    static constexpr std::uint32_t kNameInformationOffset = 48;
};
static_assert(sizeof(FileRecord) == 64);
static_assert(offsetof(FileRecord, Options) == 40);
static_assert(offsetof(FileRecord, FileNameOffset) == 44);
static_assert(offsetof(FileRecord, FileNameLength) == FileRecord::kNameInformationOffset);
static_assert(offsetof(FileRecord, FileNameMaximumLength) == 50);
static_assert(offsetof(FileRecord, Gap) == 52);
static_assert(offsetof(FileRecord, FileNameAddress) == 56);

/// Key security set, type 12. The sections of the parts that changed follow, in the order of the
/// offsets, without gaps; an offset of 0 says that the part did not change.
struct KeySecuritySetRecord {
    RecordHeader Header;
    std::uint16_t OwnerOffset;
    std::uint16_t GroupOffset;
    std::uint16_t DaclOffset;
    std::uint16_t SaclOffset;
};
static_assert(sizeof(KeySecuritySetRecord) == 48);
static_assert(offsetof(KeySecuritySetRecord, OwnerOffset) == 40);
static_assert(offsetof(KeySecuritySetRecord, GroupOffset) == 42);
static_assert(offsetof(KeySecuritySetRecord, DaclOffset) == 44);
static_assert(offsetof(KeySecuritySetRecord, SaclOffset) == 46);

/// One changed part: the old SID or ACL follows, then the new one. Only 2-byte aligned.
struct SecuritySection {
    std::uint16_t OldLength;
    std::uint16_t NewLength;
};
static_assert(sizeof(SecuritySection) == 4);
static_assert(offsetof(SecuritySection, OldLength) == 0);
static_assert(offsetof(SecuritySection, NewLength) == 2);

}  // namespace zpregflt
