// Kernel services, as the service control manager keeps them.
#pragma once

#include "zpregmon/windows/handle.h"

#include <optional>
#include <string>

namespace zpregmon {

/// What a new service is.
struct ServiceDescription {
    const wchar_t* name;
    const wchar_t* displayName;
    const wchar_t* group;      ///< drivers that the system starts by itself come group by group
    const wchar_t* dependsOn;  ///< a service, or null
    DWORD startType;           ///< SERVICE_BOOT_START, ...
    std::wstring image;
};

/// Waits are for ten seconds at most. Everything throws SystemError.
class Service {
public:
    /// Nothing when there is no such service.
    static std::optional<Service> Find(SC_HANDLE manager, const wchar_t* name, DWORD access);
    static Service Open(SC_HANDLE manager, const wchar_t* name, DWORD access);
    static Service Create(SC_HANDLE manager, const ServiceDescription& description);

    /// Both return when it is done; false: it was so already. Access: SERVICE_QUERY_STATUS, and
    /// SERVICE_START or SERVICE_STOP.
    bool Start();
    bool Stop();
    /// The service goes when nobody has it open any more, also when somebody deleted it before.
    /// Access: DELETE.
    void Delete();

private:
    Service(ServiceHandle handle, const wchar_t* name);
    DWORD State() const;

    ServiceHandle handle_;
    std::string name_;
};

/// Throws SystemError.
ServiceHandle OpenServiceManager(DWORD access);

}  // namespace zpregmon
