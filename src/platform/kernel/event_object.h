// Events that user mode creates and that the I/O manager signals when a request is finished.
#pragma once

#include <wdm.h>

#include "platform/kernel/object.h"

#include <chrono>
#include <cstddef>
#include <optional>
#include <span>

namespace platform {

/// Set and Clear: any thread, IRQL <= DISPATCH_LEVEL.
class Event {
public:
    using Deadline = std::optional<std::chrono::steady_clock::time_point>;

    Event(EVENT_TYPE type, bool state) : type_(type), signalled_(state) {}

    /// Lets every waiter of a notification event go, or one of a synchronization event, which is
    /// then clear again. Returns whether it was set before.
    bool Set();
    void Clear();

    /// Waits until one of `events` is set and returns its index (the lowest, if several are);
    /// nothing when the deadline passes first. Without a deadline it waits for ever.
    static std::optional<std::size_t> WaitForAny(std::span<Event* const> events, Deadline deadline);

private:
    /// Whether the event lets a waiter go; under the lock of all events.
    bool Take();

    const EVENT_TYPE type_;
    bool signalled_;
};

extern const ObjectType kEventType;

}  // namespace platform
