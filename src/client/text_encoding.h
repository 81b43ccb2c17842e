// UTF-16 and bytes from event buffers as text that programs and terminals read.
//
// The writers put bytes at `out` and return the end of what they wrote. For text, `out` has room
// for kMostBytesPerUnit bytes for each unit; bytes may be scribbled on up to there.
#pragma once

#include "client/wire_text.h"

#include <cstddef>
#include <cstdint>
#include <optional>
#include <span>
#include <string>
#include <string_view>

namespace zpregmon {

inline constexpr std::size_t kMostBytesPerUnit = 6;

/// The inside of a JSON string. A surrogate without its partner becomes \uXXXX.
char* WriteJsonText(char* out, WireText text);
/// Text for a terminal. Control characters and those that turn the writing direction become \uXXXX,
/// so that no name can steer the terminal; a surrogate without its partner becomes U+FFFD.
char* WriteTerminalText(char* out, WireText text);
/// Lower-case hex, two characters a byte, for which there is room.
char* WriteHex(char* out, std::span<const std::byte> bytes);
/// Sixteen lower-case hex digits.
char* WriteHex64(char* out, std::uint64_t number);
/// Decimal; room for 20 characters.
char* WriteNumber(char* out, std::uint64_t number);

/// UTF-8 as UTF-16, or nothing when it is not sound.
std::optional<std::u16string> FromUtf8(std::string_view text);
/// The text as a terminal takes it.
std::string ToTerminal(WireText text);

}  // namespace zpregmon
