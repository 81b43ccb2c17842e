// What a workload does to the registry and what of it is news, worked out from its records alone.
#pragma once

#include "platform/kernel/text.h"
#include "records/record_format.h"
#include "zpregmon/replay/workload.h"

#include <algorithm>
#include <deque>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

namespace zpregmon {

struct ModelValue {
    std::uint32_t type = 0;
    std::vector<std::byte> data;
    bool operator==(const ModelValue&) const = default;
};

/// An event that an operation must leave.
struct ExpectedEvent {
    zpregflt::RecordType type;
    std::uint32_t pid;   ///< of the process that opened the key
    std::u16string key;  ///< the real path in capitals
    std::u16string valueName;
    ModelValue value;
    /// What the value held before, where the trace of the process does not tell.
    std::optional<ModelValue> previous;
};

/// Follows the records in file order: which keys handles are, where symbolic links lead, what the
/// values hold, and what each process last set, of which a process's 16 latest values count.
class RegistryModel {
public:
    using enum zpregflt::RecordType;

    /// The event of the record, if it must leave one of creation, deletion or a value's change.
    std::optional<ExpectedEvent> Apply(const Record& record) {
        const std::pair id{record.pid, record.handle};
        switch (record.op) {
            case Op::kCreateKey:
            case Op::kOpenKey:
                return record.status >= 0 ? Open(record) : std::nullopt;
            case Op::kClose:
                handles_.erase(id);
                return std::nullopt;
            case Op::kDuplicate:
                Duplicate(record);
                return std::nullopt;
            case Op::kProcessExit:
                std::erase_if(handles_, [&](const auto& h) { return h.first.first == record.pid; });
                recent_.erase(record.pid);
                return std::nullopt;
            default:
                return record.status == 0 ? Change(record) : std::nullopt;
        }
    }

    /// The value that a set-value record is about, as the registry holds it now; null: none.
    const ModelValue* ValueOf(const Record& record) const {
        return Find(KeyOf(record), record.name);
    }
    /// The real path of the key that a record's handle is.
    const std::u16string& KeyOf(const Record& record) const {
        return handles_.at({record.pid, record.handle})->realPath;
    }

    /// The real path of a key, from the name that somebody calls it by.
    std::u16string RealPath(std::u16string_view name) const { return Resolve(u"", name, true); }

private:
    /// A key object. It is named by its real path, or by what its creator called it.
    struct Key {
        std::uint32_t owner;
        std::u16string realPath, namedPath;
    };
    /// What a process last set. A name is one key's until that key is deleted.
    struct RecentValue {
        std::u16string namedPath;
        int life;
        std::u16string name;
        ModelValue value;
        bool wasNews;
    };

    std::optional<ExpectedEvent> Open(const Record& record) {
        constexpr std::uint32_t kOpenLink = 0x100;
        const auto root = handles_.find({record.pid, record.root});
        const std::u16string base = root != handles_.end() ? root->second->realPath : u"";
        const bool isNew =
            record.op == Op::kCreateKey && record.disposition == 1 && !record.name.empty();
        Key key{record.pid, {}, {}};
        key.realPath = Resolve(base, record.name, isNew || (record.attributes & kOpenLink) != 0);
        key.namedPath = isNew ? Upcase(base.empty() ? std::u16string(record.name)
                                                    : base + u'\\' + std::u16string(record.name))
                              : key.realPath;
        handles_[{record.pid, record.handle}] = std::make_shared<Key>(key);
        if (!isNew) {
            return std::nullopt;
        }
        return ExpectedEvent{kKeyCreated, record.pid, key.realPath, {}, {}, {}};
    }

    void Duplicate(const Record& record) {
        const auto from = handles_.find({record.fromPid, record.handle});
        if (record.status >= 0 && from != handles_.end()) {
            handles_[{record.toPid, record.newHandle}] = from->second;
        }
    }

    std::optional<ExpectedEvent> Change(const Record& record) {
        const auto found = handles_.find({record.pid, record.handle});
        if (found == handles_.end()) {
            return std::nullopt;
        }
        const Key& key = *found->second;
        ExpectedEvent event{kKeyDeleted, key.owner, key.realPath, {}, {}, {}};
        switch (record.op) {
            case Op::kSetValue:
                return Set(record, key);
            case Op::kDeleteValue:
                event.type = kValueDeleted;
                event.valueName = record.name;
                values_[key.realPath].erase(Upcase(record.name));
                std::erase_if(recent_[key.owner], [&](const RecentValue& recent) {
                    return IsOf(recent, key, record.name);
                });
                return event;
            case Op::kDeleteKey:
                values_.erase(key.realPath);
                links_.erase(key.realPath);
                ++lives_[key.namedPath];
                return event;
            default:
                return std::nullopt;
        }
    }

    std::optional<ExpectedEvent> Set(const Record& record, const Key& key) {
        ModelValue value{record.type, {record.bytes.begin(), record.bytes.end()}};
        value.data.resize(std::max<std::size_t>(record.dataSize, value.data.size()));
        const std::u16string name(record.name);
        ExpectedEvent event{kValueSet, key.owner, key.realPath, name, value, {}};
        // The value is looked up by the key's name, which leads through a link.
        const auto link = links_.find(key.realPath);
        const ModelValue* const held = Find(
            link != links_.end() ? Resolve(u"", link->second, false) : key.realPath, record.name);
        const bool isNews = Remember(key, record.name, value, held, event.previous);
        if (record.name == u"SymbolicLinkValue" && record.type == kLinkType) {
            links_[key.realPath] = {reinterpret_cast<const char16_t*>(value.data.data()),
                                    value.data.size() / sizeof(char16_t)};
        }
        values_[key.realPath][Upcase(record.name)] = std::move(value);
        return isNews ? std::optional(std::move(event)) : std::nullopt;
    }

    /// Whether the process sets something new.
    bool Remember(const Key& key, std::u16string_view name, const ModelValue& value,
                  const ModelValue* held, std::optional<ModelValue>& previous) {
        constexpr std::size_t kRemembered = 16;
        std::deque<RecentValue>& recents = recent_[key.owner];
        const auto known = std::find_if(recents.begin(), recents.end(), [&](const auto& recent) {
            return IsOf(recent, key, name);
        });
        RecentValue latest{key.namedPath, lives_[key.namedPath], std::u16string(name), value, true};
        const ModelValue* const before = known != recents.end() ? &known->value : held;
        const bool isNews = before == nullptr || *before != value;
        latest.wasNews = known != recents.end() ? known->wasNews : isNews;
        const bool isTold = known != recents.end() && known->wasNews;
        if (held != nullptr && !isTold) {
            previous = *held;
        }
        if (known != recents.end()) {
            recents.erase(known);
        } else if (recents.size() == kRemembered) {
            recents.pop_front();
        }
        recents.push_back(std::move(latest));
        return isNews;
    }

    bool IsOf(const RecentValue& recent, const Key& key, std::u16string_view name) {
        return recent.namedPath == key.namedPath && recent.life == lives_[key.namedPath] &&
               recent.name == name;
    }

    const ModelValue* Find(const std::u16string& path, std::u16string_view name) const {
        const auto key = values_.find(path);
        if (key == values_.end()) {
            return nullptr;
        }
        const auto value = key->second.find(Upcase(name));
        return value != key->second.end() ? &value->second : nullptr;
    }

    static std::u16string Upcase(std::u16string_view text) {
        std::u16string upper(text);
        std::transform(upper.begin(), upper.end(), upper.begin(),
                       [](char16_t unit) { return platform::Upcase(unit); });
        return upper;
    }

    std::u16string Resolve(std::u16string path, std::u16string_view name, bool openLink) const {
        while (!name.empty()) {
            const std::size_t end = std::min(name.find(u'\\'), name.size());
            const std::u16string component = Upcase(name.substr(0, end));
            name.remove_prefix(std::min(end + 1, name.size()));
            if (component.empty()) {
                continue;
            }
            path += u'\\' + component;
            const auto link = links_.find(path);
            if (link != links_.end() && !(name.empty() && openLink)) {
                path = Resolve(u"", link->second, false);
            }
        }
        return path;
    }

    static constexpr std::uint32_t kLinkType = 6;

    std::map<std::pair<std::uint32_t, std::uint64_t>, std::shared_ptr<Key>> handles_;
    std::map<std::u16string, std::u16string> links_;
    std::map<std::u16string, std::map<std::u16string, ModelValue>> values_;
    std::map<std::u16string, int> lives_;
    std::map<std::uint32_t, std::deque<RecentValue>> recent_;
};

}  // namespace zpregmon
