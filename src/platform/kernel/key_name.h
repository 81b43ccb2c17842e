// The name by which a system call asks for a key: OBJECT_ATTRIBUTES with a root handle or without.
#pragma once

#include "platform/kernel/caller_memory.h"
#include "platform/kernel/key_object.h"
#include "platform/kernel/key_tree.h"

#include <string_view>

namespace platform {

struct KeyName {
    /// What `path` is relative to: the caller's root key, or the permanent object.
    ObjectRef<KeyObject> root;
    CapturedString given;      ///< as the caller gave it
    std::u16string_view path;  ///< the part of `given` that is relative to `root`

    /// STATUS_OBJECT_PATH_SYNTAX_BAD when a root handle and the name do not go together;
    /// STATUS_OBJECT_PATH_NOT_FOUND for a name outside the registry. A root handle needs no right.
    NTSTATUS Capture(const CallerMemory& memory, const OBJECT_ATTRIBUTES& attributes);
};

}  // namespace platform
