// The framework's loader stub: the image's real entry point.
//
// It binds the framework before DriverEntry runs and unbinds it after a failed start or after the
// framework's own unload routine, which it displaces.
#include <wdf.h>

#include "driver/driver_entry.h"

extern "C" {
// The framework fills the table in when the driver binds; it keeps both addresses until unbind.
constinit WDFFUNC WdfFunctions[WDF_FUNCTION_COUNT] = {};
constinit PWDF_DRIVER_GLOBALS WdfDriverGlobals = nullptr;
}

namespace {

constexpr USHORT kRegistryPathCharacters = 260;

constinit WCHAR componentName[] = L"KmdfLibrary";
constinit WDF_BIND_INFO bindInfo = {
    sizeof(WDF_BIND_INFO), componentName, {1, 11, 9200}, WDF_FUNCTION_COUNT, WdfFunctions, nullptr,
};

// The loader wants the registry path again at unbind, when the system's own is long gone.
constinit WCHAR registryPathText[kRegistryPathCharacters] = {};
constinit UNICODE_STRING boundRegistryPath = {0, sizeof(registryPathText), registryPathText};

constinit DRIVER_UNLOAD* displacedUnload = nullptr;

void Unbind() {
    WdfVersionUnbind(&boundRegistryPath, &bindInfo, WdfDriverGlobals);
    WdfDriverGlobals = nullptr;
}

void NTAPI StubUnload(PDRIVER_OBJECT driverObject) {
    if (displacedUnload != nullptr) {
        displacedUnload(driverObject);
    }
    Unbind();
}

}  // namespace

NTSTATUS NTAPI FxDriverEntry(PDRIVER_OBJECT driverObject, PUNICODE_STRING registryPath) {
    RtlCopyUnicodeString(&boundRegistryPath, registryPath);
    NTSTATUS status =
        WdfVersionBind(driverObject, &boundRegistryPath, &bindInfo, &WdfDriverGlobals);
    if (!NT_SUCCESS(status)) {
        return status;
    }
    status = DriverEntry(driverObject, registryPath);
    if (!NT_SUCCESS(status)) {
        Unbind();
        return status;
    }
    if (WdfDriverGlobals->DisplaceDriverUnload) {
        displacedUnload = driverObject->DriverUnload;
        driverObject->DriverUnload = StubUnload;
    }
    return STATUS_SUCCESS;
}
