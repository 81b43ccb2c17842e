// Interruptions by the user.
#pragma once

#include <atomic>

namespace zpregmon {

/// While it exists, the first interruption by the user sets `stop`; the second one ends the
/// program. One at a time.
class InterruptScope {
public:
    explicit InterruptScope(std::atomic<bool>& stop);
    ~InterruptScope();
    InterruptScope(const InterruptScope&) = delete;
    InterruptScope& operator=(const InterruptScope&) = delete;
};

}  // namespace zpregmon
