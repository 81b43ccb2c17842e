#include "zpregmon/windows/wide_text.h"

#include "client/text_encoding.h"
#include "zpregmon/command.h"

#include <windows.h>

#include <fmt/format.h>

namespace zpregmon {

std::wstring ToWide(std::string_view text) {
    const std::optional<std::u16string> wide = FromUtf8(text);
    if (!wide || wide->find(u'\0') != std::u16string::npos) {
        throw UsageError(fmt::format("'{}' is no text", text));
    }
    return {wide->begin(), wide->end()};
}

std::string FromWide(std::wstring_view text) {
    const int units = static_cast<int>(text.size());
    const int size =
        WideCharToMultiByte(CP_UTF8, 0, text.data(), units, nullptr, 0, nullptr, nullptr);
    std::string bytes(static_cast<std::size_t>(size), '\0');
    WideCharToMultiByte(CP_UTF8, 0, text.data(), units, bytes.data(), size, nullptr, nullptr);
    return bytes;
}

}  // namespace zpregmon
