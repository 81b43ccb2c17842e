// What the system refused, in words that help.
#pragma once

#include <windows.h>

#include <stdexcept>
#include <string>
#include <string_view>

namespace zpregmon {

/// What was tried; many errors mean something else for each.
enum class Attempt {
    kOpenDevice,
    kOpenServiceManager,
    kCreateService,
    kOpenService,
    kQueryService,
    kStartService,
    kStopService,
    kDeleteService,
    kConfigureService,
    kOpenFile,
    kCopyFile,
    kDeleteFile,
    kOther,
};

/// "cannot start zpregflt: the reason", with the system's number where the reason is its own text.
class SystemError : public std::runtime_error {
public:
    /// `object`: what it was tried on; for kOther with what was tried, "allocate buffers".
    SystemError(Attempt attempt, std::string_view object, DWORD error = GetLastError());
    DWORD Code() const { return error_; }

private:
    DWORD error_;
};

}  // namespace zpregmon
