#include "zpregmon/windows/drivers.h"

#include "zpregmon/command.h"
#include "zpregmon/windows/service.h"
#include "zpregmon/windows/system_error.h"
#include "zpregmon/windows/wide_text.h"

#include <fmt/format.h>

#include <filesystem>

namespace zpregmon {

namespace {

std::wstring FileName(const Driver& driver) {
    return std::wstring(driver.name) + L".sys";
}

/// Where an image lies that is to be installed.
std::filesystem::path SourcePath(const Driver& driver) {
    std::wstring program(32768, L'\0');
    program.resize(GetModuleFileNameW(nullptr, program.data(), static_cast<DWORD>(program.size())));
    return std::filesystem::path(program).replace_filename(FileName(driver));
}

/// Where it lies when it is installed.
std::filesystem::path InstalledPath(const Driver& driver) {
    std::wstring folder(MAX_PATH, L'\0');
    folder.resize(GetSystemDirectoryW(folder.data(), static_cast<UINT>(folder.size())));
    return std::filesystem::path(folder) / L"drivers" / FileName(driver);
}

std::string Text(const std::filesystem::path& path) {
    return FromWide(path.wstring());
}

void CopyImage(const Driver& driver) {
    const std::filesystem::path target = InstalledPath(driver);
    if (!CopyFileW(SourcePath(driver).c_str(), target.c_str(), FALSE)) {
        throw SystemError(Attempt::kCopyFile, Text(target));
    }
}

void DeleteImage(const Driver& driver) {
    const std::filesystem::path path = InstalledPath(driver);
    if (!DeleteFileW(path.c_str()) && GetLastError() != ERROR_FILE_NOT_FOUND) {
        throw SystemError(Attempt::kDeleteFile, Text(path));
    }
}

/// What the system starts by itself must find the library in place by then: among drivers that it
/// starts on its way up groups decide, later a dependency does.
ServiceDescription Describe(const Driver& driver, DWORD monitorStart) {
    const bool isMonitor = driver.name == kMonitorDriver.name;
    const bool isEarly = monitorStart < SERVICE_AUTO_START;
    return {driver.name,
            driver.displayName,
            driver.group,
            driver.dependsOn,
            isMonitor || isEarly ? monitorStart : SERVICE_DEMAND_START,
            L"\\SystemRoot\\System32\\drivers\\" + FileName(driver)};
}

/// So that nothing is touched when it cannot be done.
void CheckInstallable(SC_HANDLE manager) {
    for (const Driver& driver : kDrivers) {
        if (!std::filesystem::exists(SourcePath(driver))) {
            throw UsageError(
                fmt::format("{}: no such file; the drivers' images are to lie beside "
                            "zpregmon.exe",
                            Text(SourcePath(driver))));
        }
        if (Service::Find(manager, driver.name, SERVICE_QUERY_STATUS)) {
            throw SystemError(Attempt::kCreateService, FromWide(driver.name), ERROR_SERVICE_EXISTS);
        }
    }
}

/// Whether there was a service.
bool Remove(SC_HANDLE manager, const Driver& driver) {
    std::optional<Service> service =
        Service::Find(manager, driver.name, SERVICE_QUERY_STATUS | SERVICE_STOP | DELETE);
    if (service) {
        service->Stop();
        service->Delete();
    }
    DeleteImage(driver);
    return service.has_value();
}

/// Backwards. Returns the number of services that there were.
std::size_t RemoveAll(SC_HANDLE manager) {
    std::size_t found = 0;
    for (auto driver = kDrivers.rbegin(); driver != kDrivers.rend(); ++driver) {
        found += Remove(manager, *driver) ? 1 : 0;
    }
    return found;
}

}  // namespace

void InstallDrivers(DWORD monitorStart, const DriverSettings& settings) {
    const ServiceHandle manager =
        OpenServiceManager(SC_MANAGER_CONNECT | SC_MANAGER_CREATE_SERVICE);
    CheckInstallable(manager.get());
    try {
        for (const Driver& driver : kDrivers) {
            CopyImage(driver);
            Service::Create(manager.get(), Describe(driver, monitorStart));
        }
        WriteDriverSettings(settings);
    } catch (const SystemError&) {
        try {
            RemoveAll(manager.get());
        } catch (const SystemError& error) {
            fmt::print(stderr, "zpregmon: {}\n", error.what());
        }
        throw;
    }
}

void UninstallDrivers() {
    const ServiceHandle manager = OpenServiceManager(SC_MANAGER_CONNECT);
    if (RemoveAll(manager.get()) == 0) {
        throw SystemError(Attempt::kDeleteService, FromWide(kMonitorDriver.name),
                          ERROR_SERVICE_DOES_NOT_EXIST);
    }
}

bool StartDriver(const Driver& driver) {
    const ServiceHandle manager = OpenServiceManager(SC_MANAGER_CONNECT);
    return Service::Open(manager.get(), driver.name, SERVICE_QUERY_STATUS | SERVICE_START).Start();
}

bool StopDriver(const Driver& driver) {
    const ServiceHandle manager = OpenServiceManager(SC_MANAGER_CONNECT);
    return Service::Open(manager.get(), driver.name, SERVICE_QUERY_STATUS | SERVICE_STOP).Stop();
}

}  // namespace zpregmon
