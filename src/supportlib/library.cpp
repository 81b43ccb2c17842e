// Start and end of the library.
#include "supportlib/driver_entry.h"
#include "supportlib/exemptions.h"
#include "supportlib/pool_memory.h"
#include "supportlib/process_contexts.h"
#include "supportlib/processes.h"
#include "supportlib/trusted_images.h"
#include "supportlib/upper_case.h"

#include <ntifs.h>

namespace zpklib {

constinit POOL_TYPE nonPagedPool = NonPagedPool;

namespace {

void NTAPI OnProcessNotification(PEPROCESS process, HANDLE processId, PPS_CREATE_NOTIFY_INFO info) {
    if (info != nullptr) {
        processTable.OnCreate(process, processId, info->CreatingThreadId.UniqueProcess);
    } else {
        processTable.OnExit(process, processId);
    }
}

void ChoosePoolType() {
    OSVERSIONINFOW version = {};
    version.dwOSVersionInfoSize = sizeof(version);
    const bool known = NT_SUCCESS(RtlGetVersion(&version));
    const bool hasNx = known && (version.dwMajorVersion > 6 ||
                                 (version.dwMajorVersion == 6 && version.dwMinorVersion >= 2));
    nonPagedPool = hasNx ? NonPagedPoolNx : NonPagedPool;
}

NTSTATUS StartTracking() {
    processTable.Initialize();
    InitializeProcessContexts();
    InitializeExemptions();
    return PsSetCreateProcessNotifyRoutineEx(OnProcessNotification, FALSE);
}

/// The system unloads the library after the modules that import it, so no client is left.
void NTAPI Unload(PDRIVER_OBJECT /*driver*/) {
    PsSetCreateProcessNotifyRoutineEx(OnProcessNotification, TRUE);
    processTable.Destroy();
    FreeTrustedImages();
    FreeUpperCaseTable();
}

}  // namespace
}  // namespace zpklib

extern "C" NTSTATUS NTAPI ZPkDriverEntry(PDRIVER_OBJECT driver, PUNICODE_STRING registryPath) {
    using namespace zpklib;
    ChoosePoolType();
    NTSTATUS status = CopyUpperCaseTable();
    if (!NT_SUCCESS(status)) {
        return status;
    }
    status = ReadTrustedImages(registryPath);
    if (NT_SUCCESS(status)) {
        // The notification comes last: a process may begin or end as soon as it is registered.
        status = StartTracking();
        if (NT_SUCCESS(status)) {
            driver->DriverUnload = Unload;
            return STATUS_SUCCESS;
        }
        FreeTrustedImages();
    }
    FreeUpperCaseTable();
    return status;
}
