#include "client/vocabulary.h"

#include <fmt/format.h>

#include <algorithm>
#include <array>
#include <charconv>

namespace zpregmon {

namespace {

/// By record type; 0 is the buffer header.
constexpr std::array<std::string_view, zpregflt::kLastRecordType + 1> kRecordNames = {
    "",
    "value-set",
    "value-deleted",
    "key-information-set",
    "key-renamed",
    "subkey-enumerated",
    "value-enumerated",
    "key-queried",
    "value-queried",
    "values-queried",
    "hive-loaded",
    "key-saved",
    "key-security-set",
    "key-security-queried",
    "key-restored",
    "key-replaced",
    "key-flushed",
    "hive-unloaded",
    "key-handle-closed",
    "key-deleted",
    "key-name-queried",
    "key-created",
};
static_assert(!kRecordNames.back().empty());

/// By record type.
constexpr std::array<zpregflt::OperationMask, zpregflt::kLastRecordType + 1> kOperations = {
    0,
    zpregflt::operation::kSetValueKey,
    zpregflt::operation::kDeleteValueKey,
    zpregflt::operation::kSetInformationKey,
    zpregflt::operation::kRenameKey,
    zpregflt::operation::kEnumerateKey,
    zpregflt::operation::kEnumerateValueKey,
    zpregflt::operation::kQueryKey,
    zpregflt::operation::kQueryValueKey,
    zpregflt::operation::kQueryMultipleValueKey,
    zpregflt::operation::kLoadKey,
    zpregflt::operation::kSaveKey,
    zpregflt::operation::kSetKeySecurity,
    zpregflt::operation::kQueryKeySecurity,
    zpregflt::operation::kRestoreKey,
    zpregflt::operation::kReplaceKey,
    zpregflt::operation::kFlushKey,
    zpregflt::operation::kUnLoadKey,
    zpregflt::operation::kKeyHandleClose,
    zpregflt::operation::kDeleteKey,
    zpregflt::operation::kQueryKeyName,
    zpregflt::operation::kCreateKeyEx,
};
static_assert(kOperations.back() != 0);

constexpr zpregflt::OperationMask kEveryOperation =
    (zpregflt::OperationMask{1} << zpregflt::kOperationCount) - 1;

char Lower(char c) {
    return c >= 'A' && c <= 'Z' ? static_cast<char>(c - 'A' + 'a') : c;
}

bool SameWord(std::string_view first, std::string_view second) {
    return std::equal(first.begin(), first.end(), second.begin(), second.end(),
                      [](char a, char b) { return Lower(a) == Lower(b); });
}

std::optional<zpregflt::OperationMask> ParseNumber(std::string_view text) {
    const bool hex = text.starts_with("0x") || text.starts_with("0X");
    const std::string_view digits = hex ? text.substr(2) : text;
    zpregflt::OperationMask mask = 0;
    const auto [end, error] =
        std::from_chars(digits.data(), digits.data() + digits.size(), mask, hex ? 16 : 10);
    if (error != std::errc() || end != digits.data() + digits.size()) {
        return std::nullopt;
    }
    return mask;
}

std::optional<zpregflt::OperationMask> ParseName(std::string_view name) {
    for (std::size_t bit = 0; bit < zpregflt::kOperationCount; ++bit) {
        if (SameWord(name, zpregflt::kOperationNames[bit])) {
            return zpregflt::OperationMask{1} << bit;
        }
    }
    return std::nullopt;
}

}  // namespace

std::string_view RecordName(zpregflt::RecordType type) {
    return kRecordNames[static_cast<std::size_t>(type)];
}

std::optional<std::uint32_t> ParseKind(std::string_view word) {
    const auto operation = ParseName(word);
    std::uint32_t kinds = 0;
    for (std::uint32_t type = 1; type <= zpregflt::kLastRecordType; ++type) {
        if (SameWord(word, kRecordNames[type]) || (operation && kOperations[type] == *operation)) {
            kinds |= std::uint32_t{1} << type;
        }
    }
    return kinds != 0 || operation ? std::optional(kinds) : std::nullopt;
}

std::optional<zpregflt::OperationMask> ParseOperations(std::string_view text,
                                                       std::string& problem) {
    if (!text.empty() && text.front() >= '0' && text.front() <= '9') {
        const auto mask = ParseNumber(text);
        if (!mask || (*mask & ~kEveryOperation) != 0) {
            problem = fmt::format("'{}' is not a set of operations, expected a number up to {:#x}",
                                  text, kEveryOperation);
            return std::nullopt;
        }
        return mask;
    }
    zpregflt::OperationMask mask = 0;
    for (std::size_t start = 0; start <= text.size();) {
        const std::size_t comma = std::min(text.find(',', start), text.size());
        const std::string_view name = text.substr(start, comma - start);
        const auto bit = ParseName(name);
        if (!bit) {
            problem = fmt::format("'{}' is no operation, expected {} or a number", name,
                                  fmt::join(zpregflt::kOperationNames, ", "));
            return std::nullopt;
        }
        mask |= *bit;
        start = comma + 1;
    }
    return mask;
}

}  // namespace zpregmon
