// Text that depends only on an event's path, made once for each path that comes again soon.
#pragma once

#include <array>
#include <cstdint>
#include <cstring>
#include <string>
#include <string_view>

namespace zpregmon {

/// Records about one key share its path's place in the buffer, by which the text is found again.
/// Whether it is that of the same path is looked at anew: buffers are used again.
class PathTextCache {
public:
    /// The text of the path, by `make(path)` where it is not known. Valid until the next call.
    template <typename Maker>
    const std::string& Get(std::u16string_view path, Maker&& make) {
        const auto place = reinterpret_cast<std::uintptr_t>(path.data());
        Entry& entry = entries_[place / 8 % entries_.size()];
        if (entry.path.size() != path.size() ||
            std::memcmp(entry.path.data(), path.data(), path.size() * sizeof(char16_t)) != 0) {
            entry.path = path;
            entry.text = make(path);
        }
        return entry.text;
    }

private:
    struct Entry {
        std::u16string path = std::u16string(1, u'\0');  ///< which is no path
        std::string text;
    };
    std::array<Entry, 64> entries_;
};

}  // namespace zpregmon
