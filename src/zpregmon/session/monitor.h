// Watching a running system: a session that ends when somebody wants it to.
#pragma once

#include "zpregmon/session/delivered_events.h"
#include "zpregmon/session/session_settings.h"

#include <functional>
#include <string>

namespace zpregmon {

struct MonitorOptions {
    SessionSettings settings;
    SessionOptions session;
};

struct MonitorResult : DeliveredEvents {
    SessionStatistics session;

    /// Something was delivered damaged, or the driver would not take all of the buffers any more.
    bool LostEvents() const { return damagedBuffers != 0 || session.buffersLost != 0; }
};

/// What watches; the functions are called on the session's thread, but for `pause`.
struct MonitorCalls {
    EventReceiver receive;
    /// A buffer's events have all been received.
    std::function<void()> bufferEnds;
    /// Waits between two flushes; false: monitoring ends. On the caller's thread.
    std::function<bool()> pause;
};

/// The driver delivers a buffer when it is full or flushed: flushing after every pause lets events
/// out that long after they happened at most. Requests other than for buffers are made on the
/// caller's thread only. Throws ControlError.
MonitorResult RunMonitor(ControlDevice& device, const MonitorOptions& options,
                         const MonitorCalls& calls);

/// Several lines, each ended.
std::string DescribeMonitor(const MonitorResult& result);

}  // namespace zpregmon
