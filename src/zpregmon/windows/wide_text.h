// Text at the border to the system's functions, which take UTF-16; inside it is UTF-8.
#pragma once

#include <string>
#include <string_view>

namespace zpregmon {

/// Throws UsageError unless it is sound UTF-8, and when there is a zero in it.
std::wstring ToWide(std::string_view text);
/// A surrogate without its partner becomes U+FFFD.
std::string FromWide(std::wstring_view text);

}  // namespace zpregmon
