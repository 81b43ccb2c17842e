#include "client/registry_path.h"

#include "client/text_encoding.h"

namespace zpregmon {

namespace {

struct Abbreviation {
    std::u16string_view root;  ///< in lower case
    std::string_view text;
};
constexpr Abbreviation kAbbreviations[] = {
    {u"\\registry\\machine", "HKLM"},
    {u"\\registry\\user", "HKU"},
};

bool IsUnder(std::u16string_view path, std::u16string_view root) {
    if (path.size() < root.size() || (path.size() > root.size() && path[root.size()] != u'\\')) {
        return false;
    }
    for (std::size_t i = 0; i < root.size(); ++i) {
        if (FoldCase(path[i]) != root[i]) {
            return false;
        }
    }
    return true;
}

}  // namespace

ShortPath ShortenPath(std::u16string_view path) {
    for (const Abbreviation& abbreviation : kAbbreviations) {
        if (IsUnder(path, abbreviation.root)) {
            path.remove_prefix(abbreviation.root.size());
            return {abbreviation.text, path};
        }
    }
    return {"", path};
}

std::string ShortPathText(std::u16string_view path) {
    const ShortPath parts = ShortenPath(path);
    return std::string(parts.root) + ToTerminal(parts.rest);
}

std::u16string LengthenPath(std::u16string_view path) {
    struct Name {
        std::u16string_view name;  ///< in lower case
        std::u16string_view root;
    };
    constexpr Name kNames[] = {
        {u"hklm", u"\\REGISTRY\\MACHINE"},
        {u"hkey_local_machine", u"\\REGISTRY\\MACHINE"},
        {u"hku", u"\\REGISTRY\\USER"},
        {u"hkey_users", u"\\REGISTRY\\USER"},
    };
    for (const Name& name : kNames) {
        if (IsUnder(path, name.name)) {
            return std::u16string(name.root).append(path.substr(name.name.size()));
        }
    }
    return std::u16string(path);
}

}  // namespace zpregmon
