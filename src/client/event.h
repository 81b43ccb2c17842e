// One recorded registry operation, as a client sees it.
//
// Nothing here owns anything: text and bytes point into the buffer that the event was decoded from
// and are valid as long as that is. Numbers of the system (information classes, value types, flags)
// are as the system defines them; client/information_text.h and client/vocabulary.h name them.
#pragma once

#include "client/wire_text.h"
#include "records/record_format.h"

#include <array>
#include <cstddef>
#include <cstdint>
#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <variant>

namespace zpregmon {

using Bytes = std::span<const std::byte>;

/// Data of a value, of which the driver captures no more than it is set to.
struct CapturedData {
    std::uint32_t size = 0;  ///< bytes that the value's data has
    Bytes captured;          ///< the first of them; none when they could not be read
};

struct ValueSet {
    WireText value;  ///< empty: the key's default value, as everywhere
    std::uint32_t type = 0;
    CapturedData data;
    std::optional<CapturedData> previous;  ///< its type is not recorded
};

struct ValueDeleted {
    WireText value;
};

struct KeyRenamed {
    WireText newName;  ///< as the caller gave it: normally the last part of the new path
};

/// Of key-information-set, with the class of setting, and of subkey-enumerated and key-queried,
/// with the class of querying. Empty data could not be read, as in the kinds that follow.
struct KeyInformation {
    std::uint32_t informationClass = 0;
    Bytes data;
};

struct ValueEnumerated {
    std::uint32_t index = 0;
    std::uint32_t informationClass = 0;
    Bytes data;
};

struct ValueQueried {
    WireText value;
    std::uint32_t informationClass = 0;
    Bytes data;
};

/// One value of several that were queried. The driver may have had to leave it incomplete: then its
/// fields are whatever was in the buffer before, and what points nowhere is absent here.
struct QueriedValue {
    std::optional<WireText> value;
    std::uint32_t type = 0;
    std::uint32_t size = 0;  ///< bytes of data
    Bytes data;              ///< all of them, or none
};

/// Each value is read from the buffer when it is asked for.
class ValuesQueried {
public:
    ValuesQueried() = default;
    /// `record`: from the record's first byte to the image's end; all entries are inside.
    ValuesQueried(Bytes record, std::uint32_t count) : record_(record), count_(count) {}
    std::uint32_t size() const { return count_; }
    QueriedValue operator[](std::uint32_t index) const;

private:
    Bytes record_;
    std::uint32_t count_ = 0;
};

struct HiveLoaded {
    WireText name;  ///< path under which it is loaded
    WireText file;
};

/// Of key-saved, with its format, and of key-restored, with its flags.
struct FileOperation {
    std::uint32_t options = 0;
    std::optional<WireText> file;  ///< absent: the driver could not write it
};

struct KeyReplaced {
    WireText newFile;
    WireText oldFile;
};

/// SIDs or ACLs as the system lays them out, not checked.
struct SecurityChange {
    Bytes before;
    Bytes after;
};

/// What did not change is absent.
struct KeySecuritySet {
    std::optional<SecurityChange> owner;
    std::optional<SecurityChange> group;
    std::optional<SecurityChange> dacl;
    std::optional<SecurityChange> sacl;
};

struct KeySecurityQueried {
    std::uint32_t information = 0;  ///< the parts that were asked for
    Bytes descriptor;               ///< self-relative, not checked
};

/// What the kinds have beside the header. Nothing: key-flushed, hive-unloaded, key-handle-closed,
/// key-deleted, key-name-queried and key-created.
using Payload = std::variant<std::monostate, ValueSet, ValueDeleted, KeyRenamed, KeyInformation,
                             ValueEnumerated, ValueQueried, ValuesQueried, HiveLoaded,
                             FileOperation, KeyReplaced, KeySecuritySet, KeySecurityQueried>;

struct Event {
    zpregflt::RecordType type;
    std::uint32_t processId;  ///< of the process that opened or created the key
    std::uint64_t processKey;
    std::uint64_t systemTime;  ///< 100-nanosecond intervals since 1 January 1601 (UTC)
    zpregflt::OperationMask operations;
    std::optional<std::u16string_view> key;  ///< absent: the record carries no name
    std::size_t offset;                      ///< of the record in its buffer
    Payload payload{};                       ///< the alternative is the one of `type`
};

/// Where decoding had to stop, and why.
struct DecodeError {
    std::uint64_t offset;  ///< in bytes from the start of what was decoded
    std::string what;      ///< what is there and what was expected
};

}  // namespace zpregmon
