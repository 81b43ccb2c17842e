// Events that no decoder has seen.
#pragma once

#include "client/event.h"

#include <span>
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

}  // namespace zpregmon
