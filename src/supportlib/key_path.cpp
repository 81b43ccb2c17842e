#include "supportlib/key_path.h"

#include "supportlib/driver_entry.h"

namespace zpklib {

bool NextComponent(TextView& rest, TextView& component) {
    ULONG start = 0;
    while (start != rest.Length && rest.Text[start] == L'\\') {
        ++start;
    }
    ULONG end = start;
    while (end != rest.Length && rest.Text[end] != L'\\') {
        ++end;
    }
    component = rest.First(end).From(start);
    rest = rest.From(end);
    return component.Length != 0;
}

ULONG CanonicalLength(TextView path) {
    ULONG length = 0;
    TextView component;
    while (NextComponent(path, component)) {
        length += 1 + component.Length;
    }
    return length;
}

void WriteCanonical(TextView path, WCHAR* destination) {
    TextView component;
    while (NextComponent(path, component)) {
        *destination++ = L'\\';
        RtlCopyMemory(destination, component.Text, component.Length * sizeof(WCHAR));
        destination += component.Length;
    }
}

TextView ParentPath(TextView canonical) {
    const TextView last = LastComponent(canonical);
    return canonical.First(canonical.Length - last.Length - 1);
}

ULONG CountComponents(TextView path) {
    ULONG count = 0;
    TextView component;
    while (NextComponent(path, component)) {
        ++count;
    }
    return count;
}

CanonicalPath::CanonicalPath(TextView path) {
    const ULONG length = CanonicalLength(path);
    if (length == 0) {
        return;
    }
    // Of the texts with the same components only the canonical one begins with a backslash and is
    // as long.
    if (length == path.Length && path.Text[0] == L'\\') {
        text_ = path;
        return;
    }
    copy_ = static_cast<WCHAR*>(ExAllocatePoolWithTag(PagedPool, length * sizeof(WCHAR), kPathTag));
    if (copy_ != nullptr) {
        WriteCanonical(path, copy_);
        text_ = {copy_, length};
    }
}

CanonicalPath::~CanonicalPath() {
    if (copy_ != nullptr) {
        ExFreePoolWithTag(copy_, kPathTag);
    }
}

}  // namespace zpklib
