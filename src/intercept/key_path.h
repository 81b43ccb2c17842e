// Full paths of keys as text.
#pragma once

#include <ntifs.h>

#include "intercept/references.h"

namespace zpregflt {

inline constexpr ULONG kKeyPathTag = MakeTag("ZRto");

/// A key's full path: either somebody else's string used in place, or a block of our own.
class KeyPath {
public:
    const UNICODE_STRING& Text() const { return text_; }

private:
    friend NTSTATUS BuildKeyPath(PUNICODE_STRING name, PVOID object, KeyPath& path);

    UNICODE_STRING text_ = {};
    PoolBlock<OBJECT_NAME_INFORMATION, kKeyPathTag> block_;
};

/// The object manager's name of the object in a pool block with tag kKeyPathTag, with room for
/// `spareBytes` more behind it. STATUS_INVALID_PARAMETER: it has none.
/// STATUS_INSUFFICIENT_RESOURCES. PASSIVE_LEVEL.
NTSTATUS QueryObjectName(PVOID object, ULONG spareBytes,
                         PoolBlock<OBJECT_NAME_INFORMATION, kKeyPathTag>& name);

/// The path of the key `name`: `name` itself, not copied, when it is absolute; otherwise the
/// object's name, followed by a backslash and `name` when one is given. PASSIVE_LEVEL.
NTSTATUS BuildKeyPath(PUNICODE_STRING name, PVOID object, KeyPath& path);

}  // namespace zpregflt
