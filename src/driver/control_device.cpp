#include "driver/control_device.h"

#include <ntifs.h>

#include "channel/memory.h"
#include "channel/value_cache.h"
#include "driver/control_requests.h"
#include "driver/driver_state.h"
#include "intercept/key_context.h"
#include "intercept/registry_callback.h"
#include "intercept/tracing.h"

namespace zpregflt {

namespace {

constinit const UNICODE_STRING kDeviceName = LiteralString(L"\\Device\\zpregflt");
constinit const UNICODE_STRING kSymbolicLink = LiteralString(L"\\DosDevices\\zpregflt");
constinit const UNICODE_STRING kAltitude = LiteralString(L"388888");

void NTAPI DeviceShutdown(WDFDEVICE) {
    ZPRF_TRACE(TRACE_DRIVER, TRACE_LEVEL_VERBOSE, "system shutdown");
    MemDump();
}

NTSTATUS CreateDevice(PWDFDEVICE_INIT* init) {
    WdfDeviceInitSetExclusive(*init, FALSE);
    WdfDeviceInitSetDeviceType(*init, FILE_DEVICE_UNKNOWN);
    WdfDeviceInitSetIoType(*init, WdfDeviceIoBuffered);
    NTSTATUS status = WdfDeviceInitAssignName(*init, &kDeviceName);
    if (!NT_SUCCESS(status)) {
        return status;
    }
    WdfDeviceInitSetIoInCallerContextCallback(*init, IoInCallerContext);
    WdfControlDeviceInitSetShutdownNotification(*init, DeviceShutdown, WdfDeviceShutdown);
    status = WdfDeviceCreate(init, nullptr, &State.ControlDevice);
    if (!NT_SUCCESS(status)) {
        return status;
    }
    return WdfDeviceCreateSymbolicLink(State.ControlDevice, &kSymbolicLink);
}

/// All requests arrive here, any number at once.
NTSTATUS CreateDefaultQueue() {
    WDF_IO_QUEUE_CONFIG config;
    WDF_IO_QUEUE_CONFIG_INIT_DEFAULT_QUEUE(&config, WdfIoQueueDispatchParallel);
    config.EvtIoDeviceControl = IoDeviceControl;
    return WdfIoQueueCreate(State.ControlDevice, &config, nullptr, nullptr);
}

/// Where buffer requests wait. The pool looks requests up in it until the registry callback is
/// gone, which is after the framework has disposed of the device and its queues: the driver's own
/// reference keeps the (then empty) queue's handle good until tear-down has passed that point.
NTSTATUS CreateBufferQueue() {
    WDF_IO_QUEUE_CONFIG config;
    WDF_IO_QUEUE_CONFIG_INIT(&config, WdfIoQueueDispatchManual);
    config.PowerManaged = WdfFalse;
    config.EvtIoCanceledOnQueue = IoCanceledOnBufferQueue;
    const NTSTATUS status =
        WdfIoQueueCreate(State.ControlDevice, &config, nullptr, &State.BufferQueue);
    if (NT_SUCCESS(status)) {
        WdfObjectReference(State.BufferQueue);
        State.InitProgress |= INIT_BUFFER_QUEUE;
    }
    return status;
}

void BuildPools() {
    MemInitialize();
    InitializeKeyContexts();
    ValueCacheInitialize();
    State.InitProgress |= INIT_POOLS;
}

NTSTATUS RegisterCallback(WDFDRIVER driver) {
    const NTSTATUS status =
        CmRegisterCallbackEx(RegistryCallback, &kAltitude, WdfDriverWdmGetDriverObject(driver),
                             &State, &State.CallbackCookie, nullptr);
    if (NT_SUCCESS(status)) {
        State.InitProgress |= INIT_REGISTRY_CALLBACK;
        WdfControlFinishInitializing(State.ControlDevice);
    }
    return status;
}

NTSTATUS BringUp(WDFDRIVER driver, PWDFDEVICE_INIT* init) {
    NTSTATUS status = CreateDevice(init);
    if (!NT_SUCCESS(status)) {
        return status;
    }
    status = CreateDefaultQueue();
    if (!NT_SUCCESS(status)) {
        return status;
    }
    status = CreateBufferQueue();
    if (!NT_SUCCESS(status)) {
        return status;
    }
    BuildPools();
    return RegisterCallback(driver);
}

}  // namespace

NTSTATUS InitializeControlDevice(WDFDRIVER driver, PWDFDEVICE_INIT init) {
    const NTSTATUS status = BringUp(driver, &init);
    if (!NT_SUCCESS(status)) {
        ZPRF_TRACE(TRACE_DRIVER, TRACE_LEVEL_ERROR, "control device failed, status %x", status);
    }
    if (init != nullptr) {
        WdfDeviceInitFree(init);
    }
    return status;
}

}  // namespace zpregflt
