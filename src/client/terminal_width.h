// How much of a terminal's line text takes.
#pragma once

#include <cstddef>
#include <string_view>

namespace zpregmon {

/// Columns of UTF-8 text without control characters: most characters take one, ideographs and
/// emoji two, combining marks none.
std::size_t TerminalColumns(std::string_view text);
/// The longest beginning that takes no more than `columns`.
std::string_view FirstColumns(std::string_view text, std::size_t columns);
/// The longest end that takes no more than `columns`.
std::string_view LastColumns(std::string_view text, std::size_t columns);

}  // namespace zpregmon
