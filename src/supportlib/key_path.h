// Key paths in canonical form: every component behind one backslash, and nothing else. Paths that
// callers write may repeat backslashes, end with one or lack the first.
#pragma once

#include "supportlib/folded_text.h"

namespace zpklib {

/// The most characters that a counted string can hold.
inline constexpr ULONG kMaximumPathLength = 0xFFFE / sizeof(WCHAR);

/// Takes the next component off `rest`; false when there is none.
bool NextComponent(TextView& rest, TextView& component);

/// Characters of the canonical form.
ULONG CanonicalLength(TextView path);
/// Writes the canonical form; there is room for CanonicalLength characters.
void WriteCanonical(TextView path, WCHAR* destination);

/// The canonical path without its last component; empty for a single component.
TextView ParentPath(TextView canonical);
ULONG CountComponents(TextView path);

/// A path's canonical form for the object's lifetime: the text itself where it is canonical, or
/// else a copy in pool. PASSIVE_LEVEL.
class CanonicalPath {
public:
    explicit CanonicalPath(TextView path);
    ~CanonicalPath();
    CanonicalPath(const CanonicalPath&) = delete;
    CanonicalPath& operator=(const CanonicalPath&) = delete;

    /// Empty when the path has no component, or when there was no memory for the copy.
    TextView Text() const { return text_; }

private:
    TextView text_;
    WCHAR* copy_ = nullptr;
};

}  // namespace zpklib
