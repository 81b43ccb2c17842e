// Paths through the tree, and the symbolic links on them.
#pragma once

#include "platform/kernel/key_tree.h"

#include <string>
#include <string_view>

namespace platform {

/// Where a path leads: to `key`, or with a null `key` to the place under `parent` where a key of
/// that name can be created. Valid while the tree's lock is held.
struct PathEnd {
    KeyNode* key = nullptr;
    KeyNode* parent = nullptr;
    std::u16string name;
};

/// Takes \REGISTRY off the front of an absolute name; false when it begins otherwise. What remains
/// is relative to the root.
bool StripRegistryRoot(std::u16string_view name, std::u16string_view& remaining);

/// Walks `path` down from `start`, with the tree's lock held. Separators may be doubled and may
/// stand at the end. A symbolic link on the way is followed; as last component it is not with
/// `openLink`. An empty path leads to `start`, link or not.
///
/// STATUS_OBJECT_NAME_NOT_FOUND: a component before the last is missing, or a link leads nowhere
/// or in a circle. STATUS_INVALID_PARAMETER: a component is too long.
NTSTATUS WalkPath(const KeyTree& tree, KeyNode& start, std::u16string_view path, bool openLink,
                  PathEnd& end);

/// The value that holds a link's target.
inline constexpr std::u16string_view kLinkValueName = u"SymbolicLinkValue";

}  // namespace platform
