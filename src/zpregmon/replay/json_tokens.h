// Values of workload files, from their JSON tokens.
//
// Text may hold surrogates without their partners, which JSON parsers refuse to decode: tokens are
// taken as they stand in the file and decoded here. Every function throws TokenError.
#pragma once

#include <cstddef>
#include <cstdint>
#include <memory_resource>
#include <span>
#include <stdexcept>
#include <string_view>
#include <vector>

namespace zpregmon {

/// A token that is not what it should be; the text says what was expected.
class TokenError : public std::runtime_error {
public:
    using std::runtime_error::runtime_error;
};

/// A string's text in memory of `memory`.
std::u16string_view DecodeText(std::string_view token, std::pmr::memory_resource& memory);
/// A string of lower-case hex digits, as the bytes that they stand for.
std::span<const std::byte> DecodeHexBytes(std::string_view token,
                                          std::pmr::memory_resource& memory);
/// A string of exactly 8 lower-case hex digits.
std::uint32_t DecodeHexNumber(std::string_view token);
/// An unsigned decimal number up to `most`.
std::uint64_t DecodeNumber(std::string_view token, std::uint64_t most);
bool DecodeBool(std::string_view token);

/// The members of one JSON object, as they stand in the file.
class JsonMembers {
public:
    void Clear() { members_.clear(); }
    void Add(std::string_view key, std::string_view token) { members_.push_back({key, token}); }
    /// Null when it is missing.
    const std::string_view* Find(std::string_view key) const;
    std::string_view Get(std::string_view key, std::string_view expected) const;

private:
    struct Member {
        std::string_view key, token;
    };
    std::vector<Member> members_;
};

}  // namespace zpregmon
