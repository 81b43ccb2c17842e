// A small framework driver whose callbacks a test supplies, with the loader stub that every
// framework driver carries.
#pragma once

#include <ntifs.h>
#include <wdf.h>

#include <functional>

namespace framework_test {

/// What the driver does; empty members mean the default given here.
struct Behaviour {
    /// DriverEntry proper. Default: CreateDriver, then CreateDeviceAndQueues.
    std::function<NTSTATUS(PDRIVER_OBJECT, PUNICODE_STRING)> entry;
    /// Default: nothing.
    std::function<void(WDFDRIVER)> unload;
    /// The device has EvtIoInCallerContext only when this is given.
    std::function<void(WDFDEVICE, WDFREQUEST)> inCallerContext;
    /// Default: completes with STATUS_SUCCESS.
    std::function<void(WDFREQUEST, size_t output, size_t input, ULONG code)> deviceControl;
    /// Default: completes with STATUS_CANCELLED and information 77, which only the driver would.
    std::function<void(WDFREQUEST)> cancelled;
    std::function<void(WDFWORKITEM)> workItem;
    std::function<void(WDFOBJECT)> cleanup;
    std::function<void(WDFOBJECT)> destroy;

    // What CreateDeviceAndQueues makes.
    bool finishInitializing = true;
    bool cancelCallback = true;       ///< the parked queue has EvtIoCanceledOnQueue
    bool cancelDefaultQueue = false;  ///< so has the default queue
    ULONG presentedRequests = 0xFFFFFFFF;
    WDF_IO_QUEUE_DISPATCH_TYPE dispatchType = WdfIoQueueDispatchParallel;
};

/// What the driver made.
struct Objects {
    WDFDRIVER driver = nullptr;
    WDFDEVICE device = nullptr;
    WDFQUEUE defaultQueue = nullptr;
    WDFQUEUE parked = nullptr;  ///< manual
};

extern Behaviour behaviour;
extern Objects objects;

/// The image's entry point.
NTSTATUS NTAPI FxDriverEntry(PDRIVER_OBJECT driverObject, PUNICODE_STRING registryPath);

// Trampolines to `behaviour`.
EVT_WDF_DRIVER_UNLOAD OnUnload;
EVT_WDF_IO_IN_CALLER_CONTEXT OnInCallerContext;
EVT_WDF_IO_QUEUE_IO_DEVICE_CONTROL OnDeviceControl;
EVT_WDF_IO_QUEUE_IO_CANCELED_ON_QUEUE OnCancelled;
EVT_WDF_WORKITEM OnWorkItem;
EVT_WDF_OBJECT_CONTEXT_CLEANUP OnCleanup;
EVT_WDF_OBJECT_CONTEXT_DESTROY OnDestroy;

/// WdfDriverCreate, the way non-Plug-and-Play drivers call it.
NTSTATUS CreateDriver(PDRIVER_OBJECT driverObject, PUNICODE_STRING registryPath,
                      PWDF_OBJECT_ATTRIBUTES attributes = nullptr);
/// A device \Device\fwtest with the link \DosDevices\fwtest, a default and a manual queue.
NTSTATUS CreateDeviceAndQueues();
NTSTATUS CreateManualQueue(WDFDEVICE device, bool cancelCallback, PWDF_OBJECT_ATTRIBUTES attributes,
                           WDFQUEUE* queue);
/// A work item below `parent` that calls `behaviour.workItem`.
NTSTATUS CreateWorkItem(WDFOBJECT parent, WDFWORKITEM* workItem);

inline WDF_OBJECT_ATTRIBUTES Attributes(WDFOBJECT parent = nullptr,
                                        const WDF_OBJECT_CONTEXT_TYPE_INFO* type = nullptr) {
    WDF_OBJECT_ATTRIBUTES attributes;
    WDF_OBJECT_ATTRIBUTES_INIT(&attributes);
    attributes.ParentObject = parent;
    attributes.ContextTypeInfo = type;
    return attributes;
}

inline constexpr UNICODE_STRING kDeviceName = LiteralString(L"\\Device\\fwtest");
inline constexpr UNICODE_STRING kLinkName = LiteralString(L"\\DosDevices\\fwtest");
inline constexpr UNICODE_STRING kOpenName = LiteralString(L"\\??\\fwtest");
inline constexpr UNICODE_STRING kAllowEveryone = LiteralString(L"D:P(A;;GA;;;WD)");

}  // namespace framework_test
