// The object manager's name space: a table of absolute names in upper case.
#include "platform/kernel/object_header.h"
#include "platform/kernel/text.h"

#include <map>
#include <mutex>
#include <shared_mutex>
#include <utility>
#include <vector>

namespace platform {

namespace {

struct NameEntry {
    enum class Kind { kDirectory, kLink, kObject };
    Kind kind = Kind::kDirectory;
    std::u16string target;  ///< of a link
    void* body = nullptr;   ///< with a reference
};

struct NameSpace {
    using Entries = std::map<std::u16string, NameEntry, std::less<>>;

    std::shared_mutex lock;
    Entries entries = Directories();

    static Entries Directories() {
        Entries entries;
        for (const char16_t* directory :
             {u"", u"\\DEVICE", u"\\DRIVER", u"\\BASENAMEDOBJECTS", u"\\??"}) {
            entries[directory] = {};
        }
        entries[u"\\DOSDEVICES"] = {NameEntry::Kind::kLink, u"\\??", nullptr};
        return entries;
    }
};

/// Links that lead to links; more than this is taken for a circle.
constexpr int kMostLinks = 32;

NameSpace& Names() {
    static NameSpace names;
    return names;
}

std::u16string UpperCase(std::u16string_view text) {
    std::u16string upper(text);
    for (char16_t& character : upper) {
        character = Upcase(character);
    }
    return upper;
}

NTSTATUS CheckSyntax(std::u16string_view path) {
    if (path.empty() || path.front() != u'\\') return STATUS_OBJECT_PATH_SYNTAX_BAD;
    const bool emptyComponent =
        path.back() == u'\\' || path.find(u"\\\\") != std::u16string_view::npos;
    return emptyComponent ? STATUS_OBJECT_NAME_INVALID : STATUS_SUCCESS;
}

/// Replaces the first link among the directories of `path`, or, with `lastToo`, the path itself.
bool FollowLink(const NameSpace& names, std::u16string& path, bool lastToo) {
    for (std::size_t end = path.find(u'\\', 1);; end = path.find(u'\\', end + 1)) {
        const bool last = end == std::u16string::npos;
        if (last && !lastToo) return false;
        const auto found = names.entries.find(std::u16string_view(path).substr(0, end));
        if (found != names.entries.end() && found->second.kind == NameEntry::Kind::kLink) {
            path = UpperCase(found->second.target) + (last ? u"" : path.substr(end));
            return true;
        }
        if (last) return false;
    }
}

/// The name under which the entry is or would be kept; its directory must exist. Under the lock.
NTSTATUS ResolvePath(const NameSpace& names, std::u16string_view path, bool lastToo,
                     std::u16string& resolved) {
    const NTSTATUS syntax = CheckSyntax(path);
    if (!NT_SUCCESS(syntax)) return syntax;
    resolved = UpperCase(path);
    for (int links = 0; FollowLink(names, resolved, lastToo); ++links) {
        if (links == kMostLinks) return STATUS_OBJECT_NAME_INVALID;
    }
    const auto directory = names.entries.find(resolved.substr(0, resolved.rfind(u'\\')));
    const bool exists =
        directory != names.entries.end() && directory->second.kind == NameEntry::Kind::kDirectory;
    return exists ? STATUS_SUCCESS : STATUS_OBJECT_PATH_NOT_FOUND;
}

NTSTATUS Insert(NameSpace& names, std::u16string_view path, const NameEntry& entry) {
    std::u16string resolved;
    const NTSTATUS status = ResolvePath(names, path, false, resolved);
    if (!NT_SUCCESS(status)) return status;
    const bool inserted = names.entries.try_emplace(resolved, entry).second;
    return inserted ? STATUS_SUCCESS : STATUS_OBJECT_NAME_COLLISION;
}

}  // namespace

NTSTATUS InsertNamedObject(void* body, std::u16string_view path) {
    ObjectHeader& header = HeaderOf(body, "InsertNamedObject");
    NameSpace& names = Names();
    const std::unique_lock guard(names.lock);
    const NTSTATUS status = Insert(names, path, {NameEntry::Kind::kObject, {}, body});
    if (!NT_SUCCESS(status)) return status;
    header.name = path;
    ReferenceObject(body);
    return STATUS_SUCCESS;
}

NTSTATUS InsertNameLink(std::u16string_view path, std::u16string_view target) {
    NameSpace& names = Names();
    const std::unique_lock guard(names.lock);
    return Insert(names, path, {NameEntry::Kind::kLink, std::u16string(target), nullptr});
}

void RemoveName(std::u16string_view path) {
    void* body = nullptr;
    {
        NameSpace& names = Names();
        const std::unique_lock guard(names.lock);
        std::u16string resolved;
        if (!NT_SUCCESS(ResolvePath(names, path, false, resolved))) return;
        const auto found = names.entries.find(resolved);
        if (found == names.entries.end() || found->second.kind == NameEntry::Kind::kDirectory) {
            return;
        }
        body = found->second.body;
        names.entries.erase(found);
    }
    if (body != nullptr) DereferenceObject(body);
}

void ForgetNames() {
    static auto& forgotten = *new std::vector<void*>;  // keeps the objects reachable
    NameSpace& names = Names();
    const std::unique_lock guard(names.lock);
    for (const auto& [path, entry] : std::exchange(names.entries, NameSpace::Directories())) {
        if (entry.body != nullptr) forgotten.push_back(entry.body);
    }
}

NTSTATUS LookupNamedObject(std::u16string_view path, void** body) {
    NameSpace& names = Names();
    const std::shared_lock guard(names.lock);
    std::u16string resolved;
    const NTSTATUS status = ResolvePath(names, path, true, resolved);
    if (!NT_SUCCESS(status)) return status;
    const auto found = names.entries.find(resolved);
    if (found == names.entries.end()) return STATUS_OBJECT_NAME_NOT_FOUND;
    if (found->second.kind != NameEntry::Kind::kObject) return STATUS_OBJECT_TYPE_MISMATCH;
    ReferenceObject(found->second.body);
    *body = found->second.body;
    return STATUS_SUCCESS;
}

}  // namespace platform
