#include "zpregmon/windows/service.h"

#include "zpregmon/windows/system_error.h"
#include "zpregmon/windows/wide_text.h"

namespace zpregmon {

namespace {

constexpr DWORD kMostMilliseconds = 10000;
constexpr DWORD kLookMilliseconds = 50;

/// The manager tells of no change of a driver's state: it has to be asked.
template <typename Condition>
bool WaitUntil(Condition condition) {
    for (DWORD waited = 0; !condition(); waited += kLookMilliseconds) {
        if (waited >= kMostMilliseconds) {
            return false;
        }
        Sleep(kLookMilliseconds);
    }
    return true;
}

}  // namespace

ServiceHandle OpenServiceManager(DWORD access) {
    ServiceHandle manager(OpenSCManagerW(nullptr, nullptr, access));
    if (!manager) {
        throw SystemError(Attempt::kOpenServiceManager, "the service control manager");
    }
    return manager;
}

Service::Service(ServiceHandle handle, const wchar_t* name)
    : handle_(std::move(handle)), name_(FromWide(name)) {}

std::optional<Service> Service::Find(SC_HANDLE manager, const wchar_t* name, DWORD access) {
    ServiceHandle handle(OpenServiceW(manager, name, access));
    if (!handle) {
        if (GetLastError() == ERROR_SERVICE_DOES_NOT_EXIST) {
            return std::nullopt;
        }
        throw SystemError(Attempt::kOpenService, FromWide(name));
    }
    return Service(std::move(handle), name);
}

Service Service::Open(SC_HANDLE manager, const wchar_t* name, DWORD access) {
    std::optional<Service> service = Find(manager, name, access);
    if (!service) {
        throw SystemError(Attempt::kOpenService, FromWide(name), ERROR_SERVICE_DOES_NOT_EXIST);
    }
    return std::move(*service);
}

Service Service::Create(SC_HANDLE manager, const ServiceDescription& description) {
    // A list of names, each with its end, and one more.
    const std::wstring dependencies =
        description.dependsOn != nullptr ? std::wstring(description.dependsOn) + L'\0' : L"";
    ServiceHandle handle(
        CreateServiceW(manager, description.name, description.displayName, SERVICE_ALL_ACCESS,
                       SERVICE_KERNEL_DRIVER, description.startType, SERVICE_ERROR_NORMAL,
                       description.image.c_str(), description.group, nullptr,
                       dependencies.empty() ? nullptr : dependencies.c_str(), nullptr, nullptr));
    if (!handle) {
        throw SystemError(Attempt::kCreateService, FromWide(description.name));
    }
    return {std::move(handle), description.name};
}

DWORD Service::State() const {
    SERVICE_STATUS status;
    if (!QueryServiceStatus(handle_.get(), &status)) {
        throw SystemError(Attempt::kQueryService, name_);
    }
    return status.dwCurrentState;
}

bool Service::Start() {
    if (!StartServiceW(handle_.get(), 0, nullptr)) {
        if (GetLastError() == ERROR_SERVICE_ALREADY_RUNNING) {
            return false;
        }
        throw SystemError(Attempt::kStartService, name_);
    }
    if (!WaitUntil([this] { return State() != SERVICE_START_PENDING; }) ||
        State() != SERVICE_RUNNING) {
        throw SystemError(Attempt::kStartService, name_, ERROR_SERVICE_REQUEST_TIMEOUT);
    }
    return true;
}

bool Service::Stop() {
    const DWORD state = State();
    if (state == SERVICE_STOPPED) {
        return false;
    }
    SERVICE_STATUS status;
    // A driver that is on its way out waits for its last handle; it is not told twice.
    if (state != SERVICE_STOP_PENDING &&
        !ControlService(handle_.get(), SERVICE_CONTROL_STOP, &status)) {
        throw SystemError(Attempt::kStopService, name_);
    }
    if (!WaitUntil([this] { return State() == SERVICE_STOPPED; })) {
        throw SystemError(Attempt::kStopService, name_, ERROR_SERVICE_REQUEST_TIMEOUT);
    }
    return true;
}

void Service::Delete() {
    if (!DeleteService(handle_.get()) && GetLastError() != ERROR_SERVICE_MARKED_FOR_DELETE) {
        throw SystemError(Attempt::kDeleteService, name_);
    }
}

}  // namespace zpregmon
