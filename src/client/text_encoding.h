// UTF-16 from event buffers as text that programs and terminals read.
//
// The writers put bytes at `out`, which has room for kMostBytesPerUnit bytes for each unit, and
// return the end of what they wrote.
#pragma once

#include <cstddef>
#include <string_view>

namespace zpregmon {

inline constexpr std::size_t kMostBytesPerUnit = 6;

/// The inside of a JSON string. A surrogate without its partner becomes \uXXXX.
char* WriteJsonText(char* out, std::u16string_view text);
/// Text for a terminal. Control characters become \uXXXX, so that no name can steer the terminal; a
/// surrogate without its partner becomes U+FFFD.
char* WriteTerminalText(char* out, std::u16string_view text);

}  // namespace zpregmon
