#include "zpregmon/replay/query_answer.h"

#include <zlib.h>

#include <array>
#include <cstring>

namespace zpregmon {

namespace {

/// Larger data has no checksum in a recording.
constexpr std::size_t kMostChecksummed = 1024;

/// KEY_VALUE_PARTIAL_INFORMATION_ALIGN64: a type, a length, the data.
constexpr std::size_t kAlignedPartialFixed = 8;

template <typename Structure>
Structure Load(const std::byte* buffer, std::size_t size) {
    Structure structure{};
    std::memcpy(&structure, buffer, size);
    return structure;
}

std::u16string_view TextAt(const std::byte* place, std::size_t bytes) {
    return {reinterpret_cast<const char16_t*>(place), bytes / sizeof(char16_t)};
}

void TakeData(const std::byte* data, std::size_t size, Answer& answer) {
    if (size > 0 && size <= kMostChecksummed) {
        answer.crc = static_cast<std::uint32_t>(
            crc32(0, reinterpret_cast<const unsigned char*>(data), static_cast<unsigned>(size)));
    }
}

template <typename Counts>
void TakeCounts(const Counts& counts, Answer& answer) {
    answer.subkeys = counts.SubKeys;
    answer.values = counts.Values;
    answer.maxName = counts.MaxNameLen;
    answer.maxValueName = counts.MaxValueNameLen;
    answer.maxValueData = counts.MaxValueDataLen;
}

}  // namespace

std::size_t FixedPart(KEY_INFORMATION_CLASS informationClass) {
    switch (informationClass) {
        case KeyBasicInformation:
            return offsetof(KEY_BASIC_INFORMATION, Name);
        case KeyNodeInformation:
            return offsetof(KEY_NODE_INFORMATION, Name);
        case KeyFullInformation:
            return offsetof(KEY_FULL_INFORMATION, Class);
        case KeyNameInformation:
            return offsetof(KEY_NAME_INFORMATION, Name);
        default:
            return sizeof(KEY_CACHED_INFORMATION);
    }
}

std::size_t FixedPart(KEY_VALUE_INFORMATION_CLASS informationClass) {
    switch (informationClass) {
        case KeyValueBasicInformation:
            return offsetof(KEY_VALUE_BASIC_INFORMATION, Name);
        case KeyValuePartialInformation:
            return offsetof(KEY_VALUE_PARTIAL_INFORMATION, Data);
        case KeyValuePartialInformationAlign64:
            return kAlignedPartialFixed;
        default:
            return offsetof(KEY_VALUE_FULL_INFORMATION, Name);
    }
}

Answer ReadKeyAnswer(KEY_INFORMATION_CLASS informationClass, const std::byte* buffer,
                     bool complete) {
    const std::size_t fixed = FixedPart(informationClass);
    Answer answer;
    std::size_t nameLength = 0;
    switch (informationClass) {
        case KeyBasicInformation:
            nameLength = Load<KEY_BASIC_INFORMATION>(buffer, fixed).NameLength;
            break;
        case KeyNameInformation:
            nameLength = Load<KEY_NAME_INFORMATION>(buffer, fixed).NameLength;
            break;
        case KeyNodeInformation: {
            const auto node = Load<KEY_NODE_INFORMATION>(buffer, fixed);
            nameLength = node.NameLength;
            answer.size = node.ClassLength;
            if (complete && node.ClassLength != 0) {
                answer.className = TextAt(buffer + node.ClassOffset, node.ClassLength);
            }
            break;
        }
        case KeyFullInformation:
            TakeCounts(Load<KEY_FULL_INFORMATION>(buffer, fixed), answer);
            return answer;
        default:
            TakeCounts(Load<KEY_CACHED_INFORMATION>(buffer, fixed), answer);
            return answer;
    }
    answer.size += nameLength;
    if (complete) {
        answer.name = TextAt(buffer + fixed, nameLength);
    }
    return answer;
}

Answer ReadValueAnswer(KEY_VALUE_INFORMATION_CLASS informationClass, const std::byte* buffer,
                       bool complete) {
    const std::size_t fixed = FixedPart(informationClass);
    Answer answer;
    switch (informationClass) {
        case KeyValueBasicInformation: {
            const auto basic = Load<KEY_VALUE_BASIC_INFORMATION>(buffer, fixed);
            answer.type = basic.Type;
            answer.size = basic.NameLength;
            if (complete) {
                answer.name = TextAt(buffer + fixed, basic.NameLength);
            }
            break;
        }
        case KeyValuePartialInformation: {
            const auto partial = Load<KEY_VALUE_PARTIAL_INFORMATION>(buffer, fixed);
            answer.type = partial.Type;
            answer.size = partial.DataLength;
            if (complete) {
                TakeData(buffer + fixed, partial.DataLength, answer);
            }
            break;
        }
        case KeyValuePartialInformationAlign64: {
            const auto partial = Load<std::array<std::uint32_t, 2>>(buffer, fixed);
            answer.type = partial[0];
            answer.size = partial[1];
            if (complete) {
                TakeData(buffer + fixed, partial[1], answer);
            }
            break;
        }
        default: {
            const auto full = Load<KEY_VALUE_FULL_INFORMATION>(buffer, fixed);
            answer.type = full.Type;
            answer.size = std::uint64_t{full.NameLength} + full.DataLength;
            if (complete) {
                answer.name = TextAt(buffer + fixed, full.NameLength);
                TakeData(buffer + full.DataOffset, full.DataLength, answer);
            }
            break;
        }
    }
    return answer;
}

}  // namespace zpregmon
