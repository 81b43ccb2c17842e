// The image of a buffer with one record of every kind, and some more of those that have variants.
#pragma once

#include "client/buffer_builder.h"

#include <cstdint>
#include <initializer_list>
#include <string_view>
#include <vector>

namespace zpregmon {

/// What a record has behind its header. Offsets count from the record's first byte.
class RecordBody {
public:
    RecordBody& U16(std::uint16_t number) { return Raw(&number, sizeof(number)); }
    RecordBody& U32(std::uint32_t number) { return Raw(&number, sizeof(number)); }
    RecordBody& U64(std::uint64_t number) { return Raw(&number, sizeof(number)); }
    RecordBody& Hex(std::initializer_list<unsigned char> bytes) {
        return Raw(bytes.begin(), bytes.size());
    }
    RecordBody& Text(std::u16string_view text) {
        return Raw(text.data(), text.size() * sizeof(char16_t));
    }
    RecordBody& TextAndZero(std::u16string_view text) { return Text(text).U16(0); }
    RecordBody& Align(std::size_t to) {
        while (bytes_.size() % to != 0) {
            bytes_.push_back(std::byte{0});
        }
        return *this;
    }
    const std::vector<std::byte>& Bytes() const { return bytes_; }

private:
    RecordBody& Raw(const void* start, std::size_t size) {
        const auto* const bytes = static_cast<const std::byte*>(start);
        bytes_.insert(bytes_.end(), bytes, bytes + size);
        return *this;
    }
    std::vector<std::byte> bytes_;
};

/// 22 November 2026, 19:42:51.1234567.
inline constexpr std::uint64_t kExampleTime = 134398501711234567;

/// Puts records one behind the other; all are about one key, whose path comes first.
class RecordChain {
public:
    explicit RecordChain(std::u16string_view path) {
        RecordBody start;
        start.U32(0).U32(0).TextAndZero(path).Align(8);
        bytes_ = start.Bytes();
    }

    RecordChain& Add(zpregflt::RecordType type, const RecordBody& body = {}) {
        const std::size_t at = bytes_.size();
        const auto distance = static_cast<std::int32_t>(at - last_);
        std::memcpy(bytes_.data() + last_ + offsetof(zpregflt::RecordHeader, NextOffset), &distance,
                    sizeof(distance));
        zpregflt::RecordHeader header{};
        header.Type = type;
        header.ProcessId = 32;
        header.ProcessKey = 0x1DD7AE98C5BCB2F;
        header.SystemTime = kExampleTime;
        header.KeyOperations = 0x402;
        header.NameOffset = -static_cast<std::int32_t>(at - sizeof(zpregflt::BufferHeader));
        const auto* const start = reinterpret_cast<const std::byte*>(&header);
        bytes_.insert(bytes_.end(), start, start + sizeof(header));
        bytes_.insert(bytes_.end(), body.Bytes().begin(), body.Bytes().end());
        bytes_.resize((bytes_.size() + 7) / 8 * 8);
        last_ = at;
        return *this;
    }
    const std::vector<std::byte>& Bytes() const { return bytes_; }

private:
    std::vector<std::byte> bytes_;
    std::size_t last_ = 0;
};

inline constexpr std::u16string_view kExampleKey =
    u"\\REGISTRY\\MACHINE\\SYSTEM\\ControlSet001\\Services\\Dhcp";

/// A SID of the form S-1-5-`last`.
inline RecordBody& PutSid(RecordBody& body, std::uint32_t last) {
    return body.Hex({1, 1, 0, 0, 0, 0, 0, 5}).U32(last);
}

/// An ACL that allows S-1-5-`last` the access; 28 bytes.
inline RecordBody& PutAcl(RecordBody& body, std::uint32_t access, std::uint32_t last) {
    body.Hex({2, 0, 28, 0, 1, 0, 0, 0}).Hex({0, 2, 20, 0}).U32(access);
    return PutSid(body, last);
}

inline RecordChain ValueRecords(RecordChain chain) {
    using zpregflt::RecordType;
    return chain
        .Add(RecordType::kValueSet, RecordBody()
                                        .U32(72)
                                        .U32(4)
                                        .U32(4)
                                        .U32(4)
                                        .U32(84)
                                        .U32(4)
                                        .U32(4)
                                        .U32(2)
                                        .TextAndZero(u"Start")
                                        .U32(3))
        .Add(RecordType::kValueSet, RecordBody()
                                        .U32(90)
                                        .U32(1)
                                        .U32(22)
                                        .U32(22)
                                        .U32(0)
                                        .U32(0)
                                        .U32(0)
                                        .TextAndZero(u"C:\\Windows")
                                        .TextAndZero(u""))
        .Add(RecordType::kValueSet, RecordBody()
                                        .U32(80)
                                        .U32(7)
                                        .U32(12)
                                        .U32(12)
                                        .U32(0)
                                        .U32(0)
                                        .U32(0)
                                        .TextAndZero(u"a\"")
                                        .TextAndZero(u"b")
                                        .U16(0)
                                        .TextAndZero(u"List"))
        // Captured short, to an odd number of bytes: its name is at an odd address.
        .Add(RecordType::kValueSet, RecordBody()
                                        .U32(71)
                                        .U32(3)
                                        .U32(100)
                                        .U32(3)
                                        .U32(0)
                                        .U32(0)
                                        .U32(0)
                                        .Hex({0xDE, 0xAD, 0x01})
                                        .TextAndZero(u"Blob"))
        .Add(RecordType::kValueDeleted, RecordBody().TextAndZero(u"Start"))
        .Add(RecordType::kValueEnumerated, RecordBody()
                                               .U32(3)
                                               .U32(1)
                                               .U32(36)
                                               .U32(0)
                                               .U32(4)
                                               .U32(32)
                                               .U32(4)
                                               .U32(10)
                                               .Text(u"Start")
                                               .U16(0)
                                               .U32(2))
        .Add(RecordType::kValueQueried,
             RecordBody().U32(68).U32(2).U32(16).U32(0).U32(4).U32(4).U32(2).TextAndZero(u"Start"))
        .Add(RecordType::kValuesQueried,
             RecordBody()
                 .U32(3)
                 .U32(4)
                 .U32(104)
                 .U32(4)
                 .U32(92)  // a, its number
                 .U32(2)
                 .U32(108)
                 .U32(3)
                 .U32(96)  // b, two bytes
                 .U32(9)
                 .U32(0x7FFFFFFF)
                 .U32(77)
                 .U32(0)  // left incomplete
                 .TextAndZero(u"a")
                 .TextAndZero(u"b")
                 .Align(4)
                 .U32(0)
                 .U32(7)
                 .U16(0xBBAA));
}

inline RecordChain KeyRecords(RecordChain chain) {
    using zpregflt::RecordType;
    return chain.Add(RecordType::kKeyInformationSet, RecordBody().U32(0).U32(8).U64(kExampleTime))
        .Add(RecordType::kKeyRenamed, RecordBody().TextAndZero(u"Dhcp2"))
        .Add(RecordType::kSubkeyEnumerated,
             RecordBody().U32(0).U32(28).U64(kExampleTime).U32(0).U32(12).Text(u"Linked"))
        .Add(RecordType::kKeyQueried, RecordBody()
                                          .U32(2)
                                          .U32(44)
                                          .U64(kExampleTime)
                                          .U32(0)
                                          .U32(0xFFFFFFFF)
                                          .U32(0)
                                          .U32(5)
                                          .U32(12)
                                          .U32(0)
                                          .U32(7)
                                          .U32(10)
                                          .U32(260))
        .Add(RecordType::kHiveLoaded, RecordBody()
                                          .U32(80)
                                          .TextAndZero(u"\\REGISTRY\\USER\\x")
                                          .Align(4)
                                          .TextAndZero(u"\\??\\C:\\x.dat"))
        .Add(RecordType::kKeySaved,
             RecordBody().U32(2).U32(64).U16(24).U16(26).U32(0).U64(0x1234).TextAndZero(
                 u"\\Device\\x.hv"))
        .Add(RecordType::kKeyRestored, RecordBody().U32(8).U32(0).U16(0).U16(0).U32(0).U64(0))
        .Add(RecordType::kKeyReplaced, RecordBody().U32(52).TextAndZero(u"new").TextAndZero(u"old"))
        .Add(RecordType::kKeyFlushed)
        .Add(RecordType::kHiveUnloaded)
        .Add(RecordType::kKeyHandleClosed)
        .Add(RecordType::kKeyDeleted)
        .Add(RecordType::kKeyNameQueried)
        .Add(RecordType::kKeyCreated);
}

inline RecordChain SecurityRecords(RecordChain chain) {
    using zpregflt::RecordType;
    RecordBody set;
    set.U16(48).U16(0).U16(76).U16(0).U16(12).U16(12);
    PutSid(PutSid(set, 18), 19).U16(28).U16(28);
    PutAcl(PutAcl(set, 0xF003F, 18), 0x20019, 19);
    RecordBody queried;
    queried.U32(7).U32(72).Hex({1, 0, 4, 0x94}).U32(20).U32(32).U32(0).U32(44);
    PutAcl(PutSid(PutSid(queried, 18), 19), 0xF003F, 18);
    return chain.Add(RecordType::kKeySecuritySet, set)
        .Add(RecordType::kKeySecurityQueried, queried);
}

/// Events in the order in which they stand above.
inline std::vector<std::byte> EveryKind() {
    return SecurityRecords(KeyRecords(ValueRecords(RecordChain(kExampleKey)))).Bytes();
}

}  // namespace zpregmon
