// Which keys a workload creates, worked out from its records alone.
#pragma once

#include "platform/kernel/text.h"
#include "zpregmon/replay/workload.h"

#include <map>
#include <string>
#include <string_view>
#include <utility>

namespace zpregmon {

/// Follows the records in file order and knows what the workload's names stand for: which keys
/// handles are, and where symbolic links lead.
class CreatedKeysModel {
public:
    /// Whether the record created a key; `path` is then the key's real path, in capitals.
    bool Creates(const Record& record, std::u16string& path) const {
        if (record.op != Op::kCreateKey || record.status < 0 || record.disposition != 1 ||
            record.name.empty()) {
            return false;
        }
        path = Resolve(Root(record), record.name, true);
        return true;
    }

    /// The real path of a key that is being created, from the name that somebody calls it by.
    std::u16string RealPath(std::u16string_view name) const { return Resolve(u"", name, true); }

    void Apply(const Record& record) {
        constexpr std::uint32_t kOpenLink = 0x100;
        constexpr std::uint32_t kLinkType = 6;
        const std::pair handle{record.pid, record.handle};
        switch (record.op) {
            case Op::kCreateKey:
            case Op::kOpenKey:
                if (record.status >= 0) {
                    handles_[handle] =
                        Resolve(Root(record), record.name, (record.attributes & kOpenLink) != 0);
                }
                break;
            case Op::kSetValue:
                if (record.type == kLinkType && record.name == u"SymbolicLinkValue") {
                    links_[handles_[handle]] = {
                        reinterpret_cast<const char16_t*>(record.bytes.data()),
                        record.bytes.size() / sizeof(char16_t)};
                }
                break;
            case Op::kDeleteKey:
                links_.erase(handles_[handle]);
                break;
            case Op::kClose:
                handles_.erase(handle);
                break;
            default:
                break;
        }
    }

private:
    std::u16string Root(const Record& record) const {
        const auto found = handles_.find({record.pid, record.root});
        return found != handles_.end() ? found->second : u"";
    }

    std::u16string Resolve(std::u16string path, std::u16string_view name, bool openLink) const {
        while (!name.empty()) {
            const std::size_t end = std::min(name.find(u'\\'), name.size());
            const std::u16string_view component = name.substr(0, end);
            name.remove_prefix(std::min(end + 1, name.size()));
            if (component.empty()) {
                continue;
            }
            path += u'\\';
            for (const char16_t unit : component) {
                path += platform::Upcase(unit);
            }
            const auto link = links_.find(path);
            if (link != links_.end() && !(name.empty() && openLink)) {
                path = Resolve(u"", link->second, false);
            }
        }
        return path;
    }

    std::map<std::pair<std::uint32_t, std::uint64_t>, std::u16string> handles_;
    std::map<std::u16string, std::u16string> links_;
};

}  // namespace zpregmon
