// Text that depends only on an event's process, made once for each process.
#pragma once

#include "client/format.h"

#include <cstdint>
#include <functional>
#include <string>
#include <unordered_map>

namespace zpregmon {

/// The part of an image path behind its last backslash.
inline std::u16string_view FileName(std::u16string_view image) {
    image.remove_prefix(image.rfind(u'\\') + 1);  // nothing, when there is no backslash
    return image;
}

class ProcessTextCache {
public:
    /// `make` gets the process id and the image path, null when it is not known.
    using Maker = std::function<std::string(std::uint32_t, const std::u16string*)>;

    ProcessTextCache(const ProcessImages* images, Maker make)
        : images_(images), make_(std::move(make)) {}

    /// An id may be given to another process later, whose image is then another text: the text is
    /// made anew when the image is not the one that it was made of.
    const std::string& Get(std::uint32_t processId) {
        const std::u16string* image = images_ != nullptr ? images_->Find(processId) : nullptr;
        if (last_ == nullptr || processId != lastId_ || image != last_->image) {
            lastId_ = processId;
            last_ = &Lookup(processId, image);
        }
        return last_->text;
    }

private:
    struct Entry {
        const std::u16string* image;
        std::string text;
    };

    Entry& Lookup(std::uint32_t processId, const std::u16string* image) {
        const auto found = entries_.find(processId);
        if (found != entries_.end() && found->second.image == image) {
            return found->second;
        }
        Entry& entry = entries_[processId];
        entry = {image, make_(processId, image)};
        return entry;
    }

    const ProcessImages* images_;
    Maker make_;
    std::unordered_map<std::uint32_t, Entry> entries_;
    std::uint32_t lastId_ = 0;
    const Entry* last_ = nullptr;
};

}  // namespace zpregmon
