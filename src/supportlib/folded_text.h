// Text compared without regard to case, as the registry and the object manager do.
#pragma once

#include <wdm.h>

namespace zpklib {

/// UTF-16 text that somebody else owns; Length counts characters.
struct TextView {
    const WCHAR* Text = nullptr;
    ULONG Length = 0;

    TextView First(ULONG length) const { return {Text, length}; }
    TextView From(ULONG start) const { return {Text + start, Length - start}; }
};

inline TextView View(const UNICODE_STRING& text) {
    return {text.Buffer, static_cast<ULONG>(text.Length / sizeof(WCHAR))};
}

/// A hash over the upper-case characters.
ULONG64 FoldedHash(TextView text);

bool EqualFolded(TextView first, TextView second);
/// 8-bit characters stand for the first 256 of UTF-16.
bool EqualFolded(TextView first, const ANSI_STRING& second);

/// What follows the last backslash.
TextView LastComponent(TextView path);

/// True when `end` is the whole path or, beginning with or following a backslash, its end.
bool EndsWithPath(TextView path, TextView end);

}  // namespace zpklib
