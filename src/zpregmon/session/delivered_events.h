// The events in the buffers that a session delivers, and how many there were.
#pragma once

#include "client/event.h"

#include <array>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <optional>
#include <span>

namespace zpregmon {

struct DeliveredEvents {
    std::uint64_t events = 0;
    std::array<std::uint64_t, zpregflt::kLastRecordType + 1> eventsByType{};
    std::uint64_t damagedBuffers = 0;
    std::optional<DecodeError> firstDamage;
};

/// Gets every event, on the session's thread, in the order in which they lie in the buffers; text
/// is valid during the call.
using EventReceiver = std::function<void(const Event&)>;

/// Hands out the events of a delivered buffer and counts them.
void WalkBuffer(std::span<const std::byte> image, const EventReceiver& receive,
                DeliveredEvents& delivered);

}  // namespace zpregmon
