#include "framework/test_driver.h"

extern "C" {
WDFFUNC WdfFunctions[WDF_FUNCTION_COUNT] = {};
PWDF_DRIVER_GLOBALS WdfDriverGlobals = nullptr;
}

namespace framework_test {

Behaviour behaviour;
Objects objects;

namespace {

WCHAR componentName[] = L"KmdfLibrary";
WDF_BIND_INFO bindInfo = {
    sizeof(WDF_BIND_INFO), componentName, {1, 11, 9200}, WDF_FUNCTION_COUNT, WdfFunctions, nullptr,
};
// The system's own text of the path is gone by the time of the unbind.
WCHAR registryPathText[260];
UNICODE_STRING boundRegistryPath = {0, sizeof(registryPathText), registryPathText};
DRIVER_UNLOAD* displacedUnload = nullptr;

void NTAPI StubUnload(PDRIVER_OBJECT driverObject) {
    if (displacedUnload != nullptr) displacedUnload(driverObject);
    WdfVersionUnbind(&boundRegistryPath, &bindInfo, WdfDriverGlobals);
}

NTSTATUS DriverEntry(PDRIVER_OBJECT driverObject, PUNICODE_STRING registryPath) {
    if (behaviour.entry) return behaviour.entry(driverObject, registryPath);
    const NTSTATUS status = CreateDriver(driverObject, registryPath);
    return NT_SUCCESS(status) ? CreateDeviceAndQueues() : status;
}

}  // namespace

NTSTATUS NTAPI FxDriverEntry(PDRIVER_OBJECT driverObject, PUNICODE_STRING registryPath) {
    objects = {};
    RtlCopyUnicodeString(&boundRegistryPath, registryPath);
    displacedUnload = nullptr;
    NTSTATUS status =
        WdfVersionBind(driverObject, &boundRegistryPath, &bindInfo, &WdfDriverGlobals);
    if (!NT_SUCCESS(status)) return status;
    status = DriverEntry(driverObject, registryPath);
    if (!NT_SUCCESS(status)) {
        WdfVersionUnbind(&boundRegistryPath, &bindInfo, WdfDriverGlobals);
        return status;
    }
    if (WdfDriverGlobals->DisplaceDriverUnload) {
        displacedUnload = driverObject->DriverUnload;
        driverObject->DriverUnload = StubUnload;
    }
    return STATUS_SUCCESS;
}

void NTAPI OnUnload(WDFDRIVER driver) {
    if (behaviour.unload) behaviour.unload(driver);
}
void NTAPI OnInCallerContext(WDFDEVICE device, WDFREQUEST request) {
    behaviour.inCallerContext(device, request);
}
void NTAPI OnDeviceControl(WDFQUEUE, WDFREQUEST request, size_t output, size_t input, ULONG code) {
    if (behaviour.deviceControl) {
        behaviour.deviceControl(request, output, input, code);
    } else {
        WdfRequestComplete(request, STATUS_SUCCESS);
    }
}
void NTAPI OnCancelled(WDFQUEUE, WDFREQUEST request) {
    if (behaviour.cancelled) {
        behaviour.cancelled(request);
    } else {
        WdfRequestCompleteWithInformation(request, STATUS_CANCELLED, 77);
    }
}
void NTAPI OnWorkItem(WDFWORKITEM workItem) {
    behaviour.workItem(workItem);
}
void NTAPI OnCleanup(WDFOBJECT object) {
    if (behaviour.cleanup) behaviour.cleanup(object);
}
void NTAPI OnDestroy(WDFOBJECT object) {
    if (behaviour.destroy) behaviour.destroy(object);
}

NTSTATUS CreateDriver(PDRIVER_OBJECT driverObject, PUNICODE_STRING registryPath,
                      PWDF_OBJECT_ATTRIBUTES attributes) {
    WDF_DRIVER_CONFIG config;
    WDF_DRIVER_CONFIG_INIT(&config, nullptr);
    config.DriverInitFlags = WdfDriverInitNonPnpDriver;
    config.EvtDriverUnload = OnUnload;
    return WdfDriverCreate(driverObject, registryPath, attributes, &config, &objects.driver);
}

NTSTATUS CreateManualQueue(WDFDEVICE device, bool cancelCallback, PWDF_OBJECT_ATTRIBUTES attributes,
                           WDFQUEUE* queue) {
    WDF_IO_QUEUE_CONFIG config;
    WDF_IO_QUEUE_CONFIG_INIT(&config, WdfIoQueueDispatchManual);
    config.PowerManaged = WdfFalse;
    if (cancelCallback) config.EvtIoCanceledOnQueue = OnCancelled;
    return WdfIoQueueCreate(device, &config, attributes, queue);
}

namespace {

NTSTATUS CreateDefaultQueue() {
    WDF_IO_QUEUE_CONFIG config;
    WDF_IO_QUEUE_CONFIG_INIT_DEFAULT_QUEUE(&config, behaviour.dispatchType);
    if (behaviour.dispatchType == WdfIoQueueDispatchParallel) {
        config.Settings.Parallel.NumberOfPresentedRequests = behaviour.presentedRequests;
    }
    if (behaviour.dispatchType != WdfIoQueueDispatchManual) {
        config.EvtIoDeviceControl = OnDeviceControl;
    }
    if (behaviour.cancelDefaultQueue) config.EvtIoCanceledOnQueue = OnCancelled;
    return WdfIoQueueCreate(objects.device, &config, nullptr, &objects.defaultQueue);
}

NTSTATUS CreateDevice(PWDFDEVICE_INIT& init) {
    if (behaviour.inCallerContext) {
        WdfDeviceInitSetIoInCallerContextCallback(init, OnInCallerContext);
    }
    NTSTATUS status = WdfDeviceInitAssignName(init, &kDeviceName);
    if (NT_SUCCESS(status)) status = WdfDeviceCreate(&init, nullptr, &objects.device);
    return status;
}

}  // namespace

NTSTATUS CreateDeviceAndQueues() {
    PWDFDEVICE_INIT init = WdfControlDeviceInitAllocate(objects.driver, &kAllowEveryone);
    if (init == nullptr) return STATUS_INSUFFICIENT_RESOURCES;
    NTSTATUS status = CreateDevice(init);
    if (init != nullptr) WdfDeviceInitFree(init);
    if (NT_SUCCESS(status)) status = WdfDeviceCreateSymbolicLink(objects.device, &kLinkName);
    if (NT_SUCCESS(status)) status = CreateDefaultQueue();
    if (NT_SUCCESS(status)) {
        status =
            CreateManualQueue(objects.device, behaviour.cancelCallback, nullptr, &objects.parked);
    }
    if (NT_SUCCESS(status) && behaviour.finishInitializing) {
        WdfControlFinishInitializing(objects.device);
    }
    return status;
}

NTSTATUS CreateWorkItem(WDFOBJECT parent, WDFWORKITEM* workItem) {
    WDF_WORKITEM_CONFIG config;
    WDF_WORKITEM_CONFIG_INIT(&config, OnWorkItem);
    WDF_OBJECT_ATTRIBUTES attributes = Attributes(parent);
    return WdfWorkItemCreate(&config, &attributes, workItem);
}

}  // namespace framework_test
