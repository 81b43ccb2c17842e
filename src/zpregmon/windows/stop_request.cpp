#include "zpregmon/windows/stop_request.h"

#include "zpregmon/windows/system_error.h"

#include <atomic>

namespace zpregmon {

namespace {

std::atomic<HANDLE> stopEvent{nullptr};

/// Runs on a thread of the system's.
BOOL WINAPI OnConsoleEvent(DWORD type) {
    const HANDLE event = stopEvent.load();
    if (event == nullptr) {
        return FALSE;
    }
    const bool isSecond = WaitForSingleObject(event, 0) == WAIT_OBJECT_0;
    SetEvent(event);
    if (type == CTRL_C_EVENT || type == CTRL_BREAK_EVENT) {
        return isSecond ? FALSE : TRUE;
    }
    Sleep(INFINITE);  // the process is ended when this returns, or by its own end
    return TRUE;
}

}  // namespace

StopRequest::StopRequest() : requested_(CreateEventW(nullptr, TRUE, FALSE, nullptr)) {
    if (!requested_) {
        throw SystemError(Attempt::kOther, "make an event");
    }
    stopEvent.store(requested_.get());
    if (!SetConsoleCtrlHandler(OnConsoleEvent, TRUE)) {
        throw SystemError(Attempt::kOther, "watch the console");
    }
}

StopRequest::~StopRequest() {
    SetConsoleCtrlHandler(OnConsoleEvent, FALSE);
    stopEvent.store(nullptr);
}

bool StopRequest::WaitFor(std::chrono::milliseconds time) const {
    return WaitForSingleObject(requested_.get(), static_cast<DWORD>(time.count())) == WAIT_OBJECT_0;
}

}  // namespace zpregmon
