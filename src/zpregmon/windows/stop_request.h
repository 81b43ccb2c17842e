// The wish that the program comes to its end.
#pragma once

#include "zpregmon/windows/handle.h"

#include <chrono>

namespace zpregmon {

/// While it exists, the first Ctrl+C or Ctrl+Break requests the stop and the second one ends the
/// program. When the console is closed, the user logs off or the system shuts down, the stop is
/// requested, too, and the system waits some seconds for the program's end. One at a time.
class StopRequest {
public:
    /// Throws SystemError.
    StopRequest();
    ~StopRequest();
    StopRequest(const StopRequest&) = delete;
    StopRequest& operator=(const StopRequest&) = delete;

    /// On any thread.
    void Make() { SetEvent(requested_.get()); }
    /// Whether the stop was requested, by the end of that time at the latest.
    bool WaitFor(std::chrono::milliseconds time) const;

private:
    Handle requested_;
};

}  // namespace zpregmon
