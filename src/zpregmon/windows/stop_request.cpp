#include "zpregmon/windows/stop_request.h"

#include "zpregmon/windows/system_error.h"

#include <mutex>

namespace zpregmon {

namespace {

std::mutex stopLock;
HANDLE stopEvent = nullptr;  ///< of the StopRequest that there is; guarded by stopLock
/// By the user: the event may have been set for another reason. Guarded by stopLock.
bool wasInterrupted = false;

void SetStopEvent(HANDLE event) {
    const std::lock_guard guard(stopLock);
    stopEvent = event;
    wasInterrupted = false;
}

/// Runs on a thread of the system's.
BOOL WINAPI OnConsoleEvent(DWORD type) {
    const bool isInterruption = type == CTRL_C_EVENT || type == CTRL_BREAK_EVENT;
    {
        const std::lock_guard guard(stopLock);
        if (stopEvent == nullptr || (isInterruption && wasInterrupted)) {
            return FALSE;
        }
        wasInterrupted = wasInterrupted || isInterruption;
        SetEvent(stopEvent);
    }
    if (!isInterruption) {
        Sleep(INFINITE);  // the process is ended when this returns, or by its own end
    }
    return TRUE;
}

/// Once and for good: while a handler runs, the system lets nobody remove one, and this one may
/// sleep.
bool WatchConsole() {
    static const bool isWatched = SetConsoleCtrlHandler(OnConsoleEvent, TRUE) != 0;
    return isWatched;
}

}  // namespace

StopRequest::StopRequest() : requested_(CreateEventW(nullptr, TRUE, FALSE, nullptr)) {
    if (!requested_) {
        throw SystemError(Attempt::kOther, "make an event");
    }
    if (!WatchConsole()) {
        throw SystemError(Attempt::kOther, "watch the console");
    }
    SetStopEvent(requested_.get());
}

StopRequest::~StopRequest() {
    SetStopEvent(nullptr);
}

bool StopRequest::WaitFor(std::chrono::milliseconds time) const {
    return WaitForSingleObject(requested_.get(), static_cast<DWORD>(time.count())) == WAIT_OBJECT_0;
}

}  // namespace zpregmon
