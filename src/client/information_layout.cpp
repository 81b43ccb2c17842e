#include "client/information_layout.h"

#include <algorithm>

namespace zpregmon {

namespace {

enum KeyClass : std::uint32_t { kBasic = 0, kNode = 1, kFull = 2, kName = 3, kCached = 4 };
enum ValueClass : std::uint32_t {
    kValueBasic = 0,
    kValueFull = 1,
    kValuePartial = 2,
    kValueFullAlign64 = 3,
    kValuePartialAlign64 = 4,
};

std::uint32_t Number(Bytes bytes, std::size_t offset) {
    return LoadField<std::uint32_t>(bytes, offset);
}

/// `length` bytes at `offset`, or those of them that are there.
Bytes Part(Bytes bytes, std::size_t offset, std::size_t length) {
    return offset <= bytes.size() ? bytes.subspan(offset, std::min(length, bytes.size() - offset))
                                  : Bytes();
}

WireText TextPart(Bytes bytes, std::size_t offset, std::size_t length) {
    const Bytes text = Part(bytes, offset, length);
    return {text.data(), text.size() / sizeof(char16_t)};
}

KeyFacts ReadFull(Bytes data) {
    KeyFacts facts;
    facts.lastWrite = LoadField<std::uint64_t>(data, 0);
    facts.subkeys = Number(data, 20);
    facts.values = Number(data, 32);
    if (const std::uint32_t length = Number(data, 16); length != 0) {
        facts.className = TextPart(data, Number(data, 12), length);
    }
    return facts;
}

KeyFacts ReadNode(Bytes data) {
    KeyFacts facts;
    facts.lastWrite = LoadField<std::uint64_t>(data, 0);
    facts.name = TextPart(data, 24, Number(data, 20));
    if (const std::uint32_t length = Number(data, 16); length != 0) {
        facts.className = TextPart(data, Number(data, 12), length);
    }
    return facts;
}

}  // namespace

std::optional<KeyFacts> ReadKeyInformation(std::uint32_t informationClass, Bytes data) {
    constexpr std::size_t kLeast[] = {16, 24, 44, 4, 36};
    if (informationClass >= std::size(kLeast) || data.size() < kLeast[informationClass]) {
        return std::nullopt;
    }
    KeyFacts facts;
    switch (informationClass) {
        case kBasic:
            facts.lastWrite = LoadField<std::uint64_t>(data, 0);
            facts.name = TextPart(data, 16, Number(data, 12));
            break;
        case kNode:
            return ReadNode(data);
        case kFull:
            return ReadFull(data);
        case kName:
            facts.name = TextPart(data, 4, Number(data, 0));
            break;
        case kCached:
            facts.lastWrite = LoadField<std::uint64_t>(data, 0);
            facts.subkeys = Number(data, 12);
            facts.values = Number(data, 20);
            break;
    }
    return facts;
}

std::optional<ValueFacts> ReadValueInformation(std::uint32_t informationClass, Bytes data) {
    constexpr std::size_t kLeast[] = {12, 20, 12, 20, 8};
    if (informationClass >= std::size(kLeast) || data.size() < kLeast[informationClass]) {
        return std::nullopt;
    }
    ValueFacts facts;
    const bool hasTitle = informationClass != kValuePartialAlign64;
    facts.type = Number(data, hasTitle ? 4 : 0);
    switch (informationClass) {
        case kValueBasic:
            facts.name = TextPart(data, 12, Number(data, 8));
            break;
        case kValueFull:
        case kValueFullAlign64:
            facts.name = TextPart(data, 20, Number(data, 16));
            facts.data = {Number(data, 12), Part(data, Number(data, 8), Number(data, 12))};
            break;
        case kValuePartial:
            facts.data = {Number(data, 8), Part(data, 12, Number(data, 8))};
            break;
        case kValuePartialAlign64:
            facts.data = {Number(data, 4), Part(data, 8, Number(data, 4))};
            break;
    }
    return facts;
}

}  // namespace zpregmon
