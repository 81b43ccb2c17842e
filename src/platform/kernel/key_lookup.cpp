#include "platform/kernel/key_lookup.h"

#include "platform/kernel/text.h"

#include <cstring>
#include <optional>

namespace platform {
namespace {

constexpr char16_t kSeparator = u'\\';
constexpr unsigned kMaxLinksFollowed = 32;

void SkipSeparators(std::u16string_view& path) {
    path.remove_prefix(std::min(path.find_first_not_of(kSeparator), path.size()));
}

/// Takes the first component off the path, and the separators behind it.
std::u16string_view TakeComponent(std::u16string_view& path) {
    const std::u16string_view component = path.substr(0, path.find(kSeparator));
    path.remove_prefix(component.size());
    SkipSeparators(path);
    return component;
}

/// The absolute path that a link leads to.
std::optional<std::u16string> LinkTarget(const KeyNode& link) {
    const KeyValue* value = link.FindValue(kLinkValueName);
    if (value == nullptr || value->type != REG_LINK) return std::nullopt;
    std::u16string target(value->data.size() / sizeof(char16_t), u'\0');
    std::memcpy(target.data(), value->data.data(), target.size() * sizeof(char16_t));
    return target;
}

/// The path, relative to the root, that stands for `rest` below the link.
std::optional<std::u16string> PathThroughLink(const KeyNode& link, std::u16string_view rest) {
    const std::optional<std::u16string> target = LinkTarget(link);
    std::u16string_view remaining;
    if (!target || !StripRegistryRoot(*target, remaining)) return std::nullopt;
    std::u16string path(remaining);
    path += kSeparator;
    path += rest;
    return path;
}

}  // namespace

bool StripRegistryRoot(std::u16string_view name, std::u16string_view& remaining) {
    static constexpr std::u16string_view kRoot = u"\\REGISTRY";
    if (!EqualIgnoringCase(name.substr(0, kRoot.size()), kRoot)) return false;
    remaining = name.substr(kRoot.size());
    if (!remaining.empty() && remaining.front() != kSeparator) return false;
    SkipSeparators(remaining);
    return true;
}

NTSTATUS WalkPath(const KeyTree& tree, KeyNode& start, std::u16string_view path, bool openLink,
                  PathEnd& end) {
    KeyNode* current = &start;
    std::u16string linkedPath;  // what `rest` is part of once a link was followed
    std::u16string_view rest = path;
    SkipSeparators(rest);
    bool stayOnLink = rest.empty();
    for (unsigned linksFollowed = 0;;) {
        if (current->IsLink() && !stayOnLink) {
            std::optional<std::u16string> newPath = PathThroughLink(*current, rest);
            if (!newPath || ++linksFollowed > kMaxLinksFollowed)
                return STATUS_OBJECT_NAME_NOT_FOUND;
            linkedPath = std::move(*newPath);
            rest = linkedPath;
            SkipSeparators(rest);
            current = tree.root.get();
        }
        if (rest.empty()) {
            end.key = current;
            return STATUS_SUCCESS;
        }
        const std::u16string_view component = TakeComponent(rest);
        if (component.size() > kMaxKeyNameCharacters) return STATUS_INVALID_PARAMETER;
        KeyNode* subkey = current->FindSubkey(component);
        if (subkey == nullptr) {
            if (!rest.empty()) return STATUS_OBJECT_NAME_NOT_FOUND;
            end.parent = current;
            end.name = component;
            return STATUS_SUCCESS;
        }
        current = subkey;
        stayOnLink = rest.empty() && openLink;
    }
}

}  // namespace platform
