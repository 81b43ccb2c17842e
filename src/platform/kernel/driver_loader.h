// Loading and unloading drivers.
#pragma once

#include <wdm.h>

#include <string>
#include <string_view>
#include <vector>

namespace platform {

struct DriverImage;

/// Makes the service key if it is missing and calls the image's entry point in a thread of the
/// system process. The status is the entry point's; STATUS_OBJECT_NAME_COLLISION when a driver of
/// that name is loaded, STATUS_DRIVER_ENTRYPOINT_NOT_FOUND without an entry point. A driver that
/// has failed or unloaded must have given its pool blocks back (kPoolLeaked).
NTSTATUS LoadDriverImage(const DriverImage& image);
/// See Machine::UnloadDriver.
NTSTATUS UnloadDriverImage(std::u16string_view name);
bool IsDriverLoaded(std::u16string_view name);
/// Names of the loaded drivers, the last loaded first.
std::vector<std::u16string> LoadedDrivers();
/// Forgets the loaded drivers without calling them, after a machine was stopped.
void ForgetDrivers();

/// The I/O manager's word that the last open file of the driver's devices is gone: a driver whose
/// unload was put off then unloads, on a system worker thread. IRQL <= DISPATCH_LEVEL.
void OnDriverDevicesClosed(DRIVER_OBJECT* driver);

/// Whether the image whose entry point or unload routine this host thread runs was linked with
/// integrity checks; true when it runs none.
bool LoadingImageIsIntegrityChecked();

}  // namespace platform
