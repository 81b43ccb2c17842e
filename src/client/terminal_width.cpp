#include "client/terminal_width.h"

#include <cstdint>

namespace zpregmon {

namespace {

struct Range {
    std::uint32_t first, last;
};
constexpr Range kWide[] = {
    {0x1100, 0x115F}, {0x2E80, 0xA4CF}, {0xAC00, 0xD7A3},   {0xF900, 0xFAFF},   {0xFE30, 0xFE6F},
    {0xFF00, 0xFF60}, {0xFFE0, 0xFFE6}, {0x1F300, 0x1FAFF}, {0x20000, 0x3FFFD},
};
constexpr Range kNarrowest[] = {{0x300, 0x36F}, {0x200B, 0x200F}, {0xFE00, 0xFE0F}};

template <std::size_t Count>
bool IsIn(const Range (&ranges)[Count], std::uint32_t point) {
    for (const Range& range : ranges) {
        if (point >= range.first && point <= range.last) {
            return true;
        }
    }
    return false;
}

std::size_t ColumnsOf(std::uint32_t point) {
    if (IsIn(kNarrowest, point)) {
        return 0;
    }
    return IsIn(kWide, point) ? 2 : 1;
}

bool IsTail(char c) {
    return (static_cast<unsigned char>(c) & 0xC0U) == 0x80U;
}

/// The character that starts at `at`, which is moved behind it.
std::uint32_t TakePoint(std::string_view text, std::size_t& at) {
    std::uint32_t point = static_cast<unsigned char>(text[at++]);
    if (point >= 0xC0) {
        point &= point >= 0xF0 ? 0x07U : point >= 0xE0 ? 0x0FU : 0x1FU;
    }
    while (at < text.size() && IsTail(text[at])) {
        point = point << 6 | (static_cast<unsigned char>(text[at++]) & 0x3FU);
    }
    return point;
}

}  // namespace

std::size_t TerminalColumns(std::string_view text) {
    std::size_t columns = 0;
    for (std::size_t at = 0; at < text.size();) {
        columns += ColumnsOf(TakePoint(text, at));
    }
    return columns;
}

std::string_view FirstColumns(std::string_view text, std::size_t columns) {
    std::size_t taken = 0;
    for (std::size_t at = 0; at < text.size();) {
        const std::size_t start = at;
        taken += ColumnsOf(TakePoint(text, at));
        if (taken > columns) {
            return text.substr(0, start);
        }
    }
    return text;
}

std::string_view LastColumns(std::string_view text, std::size_t columns) {
    std::size_t left = TerminalColumns(text);
    std::size_t at = 0;
    while (left > columns) {
        left -= ColumnsOf(TakePoint(text, at));
    }
    return text.substr(at);
}

}  // namespace zpregmon
