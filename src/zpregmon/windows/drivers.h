// The two drivers: their services, and their images' files.
#pragma once

#include "zpregmon/windows/driver_settings.h"

#include <windows.h>

#include <array>

namespace zpregmon {

struct Driver {
    const wchar_t* name;  ///< of the service, and of the image less its .sys
    const wchar_t* displayName;
    const wchar_t* group;
    const wchar_t* dependsOn;
};

inline constexpr Driver kLibraryDriver = {L"zpklib", L"Support library of the registry monitor",
                                          L"FSFilter Infrastructure", nullptr};
inline constexpr Driver kMonitorDriver = {L"zpregflt", L"Registry activity monitor",
                                          L"FSFilter Activity Monitor", kLibraryDriver.name};
/// In the order in which they start.
inline constexpr std::array kDrivers = {kLibraryDriver, kMonitorDriver};

/// Copies the images that lie beside the program into the system's folder of drivers, creates the
/// services and writes their settings. `monitorStart`: start type of the monitor; the library is
/// there before it. Of a failure nothing is left; what was installed before is not touched. Throws
/// SystemError, or UsageError when an image is missing.
void InstallDrivers(DWORD monitorStart, const DriverSettings& settings);
/// Stops the services, deletes them and deletes the images, also what is left of an installation.
/// Throws SystemError; nothing is deleted of what does not stop.
void UninstallDrivers();

/// False: it was running, or not running, already. Throw SystemError.
bool StartDriver(const Driver& driver);
bool StopDriver(const Driver& driver);

}  // namespace zpregmon
