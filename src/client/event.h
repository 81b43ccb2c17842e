// One recorded registry operation, as a client sees it.
//
// Nothing here owns anything: an event, its text and its bytes lie in the buffer that it was
// decoded from and are valid as long as that is. Numbers of the system (information classes, value
// types, flags) are as the system defines them; client/system_names.h and client/vocabulary.h name
// them.
#pragma once

#include "client/wire_field.h"
#include "client/wire_text.h"
#include "records/record_format.h"

#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <type_traits>
#include <utility>

namespace zpregmon {

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
    ValuesQueried(Bytes record, std::uint32_t count);
    std::uint32_t size() const { return count_; }
    QueriedValue operator[](std::uint32_t index) const;

private:
    QueriedValue Read(std::uint32_t index) const;

    Bytes record_;
    std::uint32_t count_ = 0;
    /// Entries that share their bytes could make any amount of data of a small record: from here on
    /// names and data would take more bytes than the record has, and count as absent.
    std::uint32_t within_ = 0;
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

/// Of the kinds that have nothing beside the header: key-flushed, hive-unloaded, key-handle-closed,
/// key-deleted, key-name-queried and key-created.
struct NoPayload {};

/// Calls the function with a std::type_identity of the structure above that is the type's payload.
template <typename Function>
decltype(auto) WithPayload(zpregflt::RecordType type, Function&& function) {
    using enum zpregflt::RecordType;
    switch (type) {
        case kValueSet:
            return function(std::type_identity<ValueSet>());
        case kValueDeleted:
            return function(std::type_identity<ValueDeleted>());
        case kKeyRenamed:
            return function(std::type_identity<KeyRenamed>());
        case kKeyInformationSet:
        case kSubkeyEnumerated:
        case kKeyQueried:
            return function(std::type_identity<KeyInformation>());
        case kValueEnumerated:
            return function(std::type_identity<ValueEnumerated>());
        case kValueQueried:
            return function(std::type_identity<ValueQueried>());
        case kValuesQueried:
            return function(std::type_identity<ValuesQueried>());
        case kHiveLoaded:
            return function(std::type_identity<HiveLoaded>());
        case kKeySaved:
        case kKeyRestored:
            return function(std::type_identity<FileOperation>());
        case kKeyReplaced:
            return function(std::type_identity<KeyReplaced>());
        case kKeySecuritySet:
            return function(std::type_identity<KeySecuritySet>());
        case kKeySecurityQueried:
            return function(std::type_identity<KeySecurityQueried>());
        case kBufferHeader:
        case kKeyFlushed:
        case kHiveUnloaded:
        case kKeyHandleClosed:
        case kKeyDeleted:
        case kKeyNameQueried:
        case kKeyCreated:
            break;
    }
    return function(std::type_identity<NoPayload>());
}

/// A record that a decoder has checked. Everything is read from it when it is asked for.
class Event {
public:
    /// To be given to a decoder before anything is asked of it.
    Event() = default;
    /// `record`: from its first byte to the image's end, sound. `key`: null when it has no name.
    Event(Bytes record, std::u16string_view key) : record_(record), key_(key) {}

    zpregflt::RecordType Type() const {
        return Load<zpregflt::RecordType>(offsetof(zpregflt::RecordHeader, Type));
    }
    /// Of the process that opened or created the key.
    std::uint32_t ProcessId() const {
        return Load<std::uint32_t>(offsetof(zpregflt::RecordHeader, ProcessId));
    }
    std::uint64_t ProcessKey() const {
        return Load<std::uint64_t>(offsetof(zpregflt::RecordHeader, ProcessKey));
    }
    /// 100-nanosecond intervals since 1 January 1601 (UTC).
    std::uint64_t SystemTime() const {
        return Load<std::uint64_t>(offsetof(zpregflt::RecordHeader, SystemTime));
    }
    zpregflt::OperationMask Operations() const {
        return Load<zpregflt::OperationMask>(offsetof(zpregflt::RecordHeader, KeyOperations));
    }
    /// The key's path; absent when the record carries no name.
    std::optional<std::u16string_view> Key() const {
        return key_.data() != nullptr ? std::optional(key_) : std::nullopt;
    }
    /// The record, and behind it whatever is in the image up to its end.
    Bytes Record() const { return record_; }

    /// Whether this structure is the payload: what the record has beside the header.
    template <typename Payload>
    bool Has() const {
        return WithPayload(Type(), []<typename Own>(std::type_identity<Own>) {
            return std::is_same_v<Own, Payload>;
        });
    }
    /// The payload, when it is this structure: if (const auto set = event.As<ValueSet>()).
    template <typename Payload>
    std::optional<Payload> As() const {
        std::optional<Payload> payload;
        if (Has<Payload>()) {
            Read(payload.emplace());
        }
        return payload;
    }
    /// Calls the visitor, which takes every one of the structures, with the payload.
    template <typename Visitor>
    decltype(auto) Visit(Visitor&& visitor) const {
        return WithPayload(Type(), [&]<typename Own>(std::type_identity<Own>) -> decltype(auto) {
            Own payload;
            Read(payload);
            return visitor(std::as_const(payload));
        });
    }

private:
    template <typename T>
    T Load(std::size_t offset) const {
        return LoadField<T>(record_.data() + offset);
    }
    template <typename Payload>
    void Read(Payload& payload) const;

    Bytes record_;
    std::u16string_view key_;
};

/// Where decoding had to stop, and why.
struct DecodeError {
    std::uint64_t offset;  ///< in bytes from the start of what was decoded
    std::string what;      ///< what is there and what was expected
};

}  // namespace zpregmon
