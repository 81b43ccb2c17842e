// Events that no decoder has seen.
#pragma once

#include "client/event.h"
#include "client/format.h"

#include <cstdint>
#include <span>
#include <string>
#include <string_view>

namespace zpregmon {

/// A record without details, to be filled in, and the event that it is.
struct MadeEvent {
    zpregflt::RecordHeader header{};
    std::u16string_view key;

    operator Event() const {  // NOLINT(google-explicit-constructor): stands for one
        return {std::as_bytes(std::span(&header, 1)), key};
    }
};

/// Every process has the same image.
class OneImage final : public ProcessImages {
public:
    explicit OneImage(std::u16string image) : image_(std::move(image)) {}
    const std::u16string* Find(std::uint32_t) const override { return &image_; }

private:
    std::u16string image_;
};

}  // namespace zpregmon
