#include "zpregmon/windows/system_error.h"

#include "zpregmon/windows/wide_text.h"

#include <fmt/format.h>

#include <algorithm>
#include <array>
#include <iterator>

namespace zpregmon {

namespace {

constexpr const char* Verb(Attempt attempt) {
    switch (attempt) {
        case Attempt::kOpenDevice:
        case Attempt::kOpenServiceManager:
        case Attempt::kOpenService:
        case Attempt::kOpenFile:
            return "open ";
        case Attempt::kCreateService:
            return "install ";
        case Attempt::kQueryService:
            return "ask for the state of ";
        case Attempt::kStartService:
            return "start ";
        case Attempt::kStopService:
            return "stop ";
        case Attempt::kDeleteService:
            return "uninstall ";
        case Attempt::kConfigureService:
            return "write the settings of ";
        case Attempt::kCopyFile:
            return "write ";
        case Attempt::kDeleteFile:
            return "delete ";
        case Attempt::kOther:
            break;
    }
    return "";
}

struct Reason {
    Attempt attempt;  ///< kOther: any
    DWORD error;
    const char* text;
};

// Errors of Windows that MinGW-w64's headers lack.
constexpr DWORD kNoSuchDevice = 433, kInvalidImageHash = 577, kAltitudeTaken = 0x801F0011;

// The first row that fits counts.
// clang-format off
constexpr Reason kReasons[] = {
    {Attempt::kOpenDevice, ERROR_FILE_NOT_FOUND, "the driver is not loaded (zpregmon start)"},
    {Attempt::kOpenDevice, ERROR_PATH_NOT_FOUND, "the driver is not loaded (zpregmon start)"},
    {Attempt::kOpenDevice, ERROR_ACCESS_DENIED, "this account may not use the driver"},
    {Attempt::kOpenDevice, kNoSuchDevice, "the driver is being unloaded"},
    {Attempt::kStartService, ERROR_FILE_NOT_FOUND, "its image file is missing (zpregmon uninstall, then install)"},
    {Attempt::kStartService, ERROR_PATH_NOT_FOUND, "its image file is missing (zpregmon uninstall, then install)"},
    {Attempt::kStartService, kInvalidImageHash, "its image is not signed by anyone whom Windows trusts to sign drivers"},
    {Attempt::kStartService, ERROR_DRIVER_BLOCKED, "Windows blocks its image"},
    {Attempt::kStartService, ERROR_BAD_EXE_FORMAT, "its image is damaged or not for this system"},
    {Attempt::kStartService, ERROR_MOD_NOT_FOUND, "a module that it needs is missing (zpklib, or the driver framework of version 1.11)"},
    {Attempt::kStartService, ERROR_PROC_NOT_FOUND, "a module that it needs is too old (zpklib, or the driver framework of version 1.11)"},
    {Attempt::kStartService, kAltitudeTaken, "another registry filter has its altitude, 388888"},
    {Attempt::kStopService, ERROR_INVALID_SERVICE_CONTROL, "it cannot be unloaded now"},
    {Attempt::kStopService, ERROR_DEPENDENT_SERVICES_RUNNING, "services that depend on it are running"},
    {Attempt::kStopService, ERROR_SERVICE_REQUEST_TIMEOUT, "a program has its device open (zpregmon monitor); it stops when that ends"},
    {Attempt::kStartService, ERROR_SERVICE_REQUEST_TIMEOUT, "it does not come up"},
    {Attempt::kOpenFile, ERROR_ACCESS_DENIED, "this account may not write it"},
    {Attempt::kOpenFile, ERROR_SHARING_VIOLATION, "another program, or the driver, uses it"},
    {Attempt::kDeleteFile, ERROR_ACCESS_DENIED, "it is in use, or administrator's rights are needed"},
    {Attempt::kOther, ERROR_ACCESS_DENIED, "administrator's rights are needed (an elevated prompt)"},
    {Attempt::kOther, ERROR_SERVICE_EXISTS, "it is installed already (zpregmon uninstall removes it)"},
    {Attempt::kOther, ERROR_SERVICE_DOES_NOT_EXIST, "it is not installed (zpregmon install)"},
    {Attempt::kOther, ERROR_SERVICE_MARKED_FOR_DELETE, "it goes when no program has it open any more, or with a restart"},
    {Attempt::kOther, ERROR_SERVICE_DISABLED, "it is disabled"},
    {Attempt::kOther, ERROR_SHARING_VIOLATION, "another program uses it"},
};
// clang-format on

const Reason* FindReason(Attempt attempt, DWORD error) {
    const auto* const found =
        std::find_if(std::begin(kReasons), std::end(kReasons), [&](const Reason& reason) {
            return reason.error == error &&
                   (reason.attempt == attempt || reason.attempt == Attempt::kOther);
        });
    return found != std::end(kReasons) ? found : nullptr;
}

/// The system's own text, less the end of its line.
std::string SystemText(DWORD error) {
    std::array<wchar_t, 512> buffer;
    const DWORD length =
        FormatMessageW(FORMAT_MESSAGE_FROM_SYSTEM | FORMAT_MESSAGE_IGNORE_INSERTS, nullptr, error,
                       0, buffer.data(), static_cast<DWORD>(buffer.size()), nullptr);
    const std::wstring_view text(buffer.data(), length);
    return fmt::format("error {}{}{}", error, text.empty() ? "" : ": ",
                       FromWide(text.substr(0, text.find_last_not_of(L" .\r\n") + 1)));
}

std::string Message(Attempt attempt, std::string_view object, DWORD error) {
    const Reason* const reason = FindReason(attempt, error);
    return fmt::format("cannot {}{}: {}", Verb(attempt), object,
                       reason != nullptr ? reason->text : SystemText(error));
}

}  // namespace

SystemError::SystemError(Attempt attempt, std::string_view object, DWORD error)
    : std::runtime_error(Message(attempt, object, error)), error_(error) {}

}  // namespace zpregmon
