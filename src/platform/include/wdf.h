// Kernel-Mode Driver Framework 1.11, as far as control-device drivers need it.
//
// A framework function is a slot of the function table that the framework fills in when the driver
// binds (WdfVersionBind); the inline functions below call their slot with the driver's globals. All
// handles are opaque. Levels: any up to DISPATCH_LEVEL where nothing is said.
#pragma once

#include "wdm.h"

#define WDF_OPAQUE_HANDLE(name) \
    struct name##__;            \
    using name = name##__*

WDF_OPAQUE_HANDLE(WDFDRIVER);
WDF_OPAQUE_HANDLE(WDFDEVICE);
WDF_OPAQUE_HANDLE(WDFQUEUE);
WDF_OPAQUE_HANDLE(WDFREQUEST);
WDF_OPAQUE_HANDLE(WDFMEMORY);
WDF_OPAQUE_HANDLE(WDFWORKITEM);
WDF_OPAQUE_HANDLE(WDFFILEOBJECT);
#undef WDF_OPAQUE_HANDLE
using WDFOBJECT = void*;
using WDFCONTEXT = void*;

struct WDFDEVICE_INIT;
using PWDFDEVICE_INIT = WDFDEVICE_INIT*;

// --- Binding -------------------------------------------------------------------------------------

struct WDF_VERSION {
    ULONG Major;
    ULONG Minor;
    ULONG Build;
};
static_assert(sizeof(WDF_VERSION) == 12);

using WDFFUNC = void (*)();

struct WDF_BIND_INFO {
    ULONG Size;
    PWCHAR Component;
    WDF_VERSION Version;
    ULONG FuncCount;
    WDFFUNC* FuncTable;
    PVOID Module;
};
using PWDF_BIND_INFO = WDF_BIND_INFO*;
static_assert(sizeof(WDF_BIND_INFO) == 48 && offsetof(WDF_BIND_INFO, Version) == 16 &&
              offsetof(WDF_BIND_INFO, FuncTable) == 32 && offsetof(WDF_BIND_INFO, Module) == 40);

struct WDF_DRIVER_GLOBALS {
    WDFDRIVER Driver;
    ULONG DriverFlags;
    ULONG DriverTag;
    CHAR DriverName[32];
    BOOLEAN DisplaceDriverUnload;
};
using PWDF_DRIVER_GLOBALS = WDF_DRIVER_GLOBALS*;
using PWDF_COMPONENT_GLOBALS = WDF_DRIVER_GLOBALS*;
static_assert(sizeof(WDF_DRIVER_GLOBALS) == 56 &&
              offsetof(WDF_DRIVER_GLOBALS, DisplaceDriverUnload) == 48);

/// Number of functions in the table of version 1.11.
inline constexpr ULONG WDF_FUNCTION_COUNT = 432;

extern "C" {
NTSTATUS NTAPI WdfVersionBind(PDRIVER_OBJECT driverObject, PUNICODE_STRING registryPath,
                              PWDF_BIND_INFO bindInfo, PWDF_COMPONENT_GLOBALS* globals);
NTSTATUS NTAPI WdfVersionUnbind(PUNICODE_STRING registryPath, PWDF_BIND_INFO bindInfo,
                                PWDF_COMPONENT_GLOBALS globals);

// Defined by the driver's loader stub.
extern WDFFUNC WdfFunctions[WDF_FUNCTION_COUNT];
extern PWDF_DRIVER_GLOBALS WdfDriverGlobals;
}

// --- Values --------------------------------------------------------------------------------------

enum WDF_DRIVER_INIT_FLAGS : ULONG {
    WdfDriverInitNonPnpDriver = 1,
    WdfDriverInitNoDispatchOverride = 2,
    WdfVerifyOn = 4,
};
enum WDF_IO_QUEUE_DISPATCH_TYPE : ULONG {
    WdfIoQueueDispatchInvalid = 0,
    WdfIoQueueDispatchSequential = 1,
    WdfIoQueueDispatchParallel = 2,
    WdfIoQueueDispatchManual = 3,
};
enum WDF_TRI_STATE : ULONG { WdfFalse = 0, WdfTrue = 1, WdfUseDefault = 2 };
enum WDF_DEVICE_IO_TYPE : ULONG {
    WdfDeviceIoUndefined = 0,
    WdfDeviceIoNeither = 1,
    WdfDeviceIoBuffered = 2,
    WdfDeviceIoDirect = 3,
};
enum WDF_REQUEST_TYPE : ULONG {
    WdfRequestTypeCreate = 0,
    WdfRequestTypeClose = 2,
    WdfRequestTypeRead = 3,
    WdfRequestTypeWrite = 4,
    WdfRequestTypeDeviceControl = 14,
    WdfRequestTypeDeviceControlInternal = 15,
};
enum WDF_EXECUTION_LEVEL : ULONG {
    WdfExecutionLevelInvalid = 0,
    WdfExecutionLevelInheritFromParent = 1,
    WdfExecutionLevelPassive = 2,
    WdfExecutionLevelDispatch = 3,
};
enum WDF_SYNCHRONIZATION_SCOPE : ULONG {
    WdfSynchronizationScopeInvalid = 0,
    WdfSynchronizationScopeInheritFromParent = 1,
    WdfSynchronizationScopeDevice = 2,
    WdfSynchronizationScopeQueue = 3,
    WdfSynchronizationScopeNone = 4,
};
inline constexpr UCHAR WdfDeviceShutdown = 1;
inline constexpr UCHAR WdfDeviceLastChanceShutdown = 2;

// --- Callbacks -----------------------------------------------------------------------------------

using EVT_WDF_OBJECT_CONTEXT_CLEANUP = void NTAPI(WDFOBJECT object);
using EVT_WDF_OBJECT_CONTEXT_DESTROY = void NTAPI(WDFOBJECT object);
using EVT_WDF_DRIVER_DEVICE_ADD = NTSTATUS NTAPI(WDFDRIVER driver, PWDFDEVICE_INIT deviceInit);
using EVT_WDF_DRIVER_UNLOAD = void NTAPI(WDFDRIVER driver);
using EVT_WDF_DEVICE_SHUTDOWN_NOTIFICATION = void NTAPI(WDFDEVICE device);
using EVT_WDF_IO_IN_CALLER_CONTEXT = void NTAPI(WDFDEVICE device, WDFREQUEST request);
using EVT_WDF_IO_QUEUE_IO_DEFAULT = void NTAPI(WDFQUEUE queue, WDFREQUEST request);
using EVT_WDF_IO_QUEUE_IO_READ = void NTAPI(WDFQUEUE queue, WDFREQUEST request, size_t length);
using EVT_WDF_IO_QUEUE_IO_WRITE = EVT_WDF_IO_QUEUE_IO_READ;
using EVT_WDF_IO_QUEUE_IO_DEVICE_CONTROL = void NTAPI(WDFQUEUE queue, WDFREQUEST request,
                                                      size_t outputLength, size_t inputLength,
                                                      ULONG controlCode);
using EVT_WDF_IO_QUEUE_IO_STOP = void NTAPI(WDFQUEUE queue, WDFREQUEST request, ULONG flags);
using EVT_WDF_IO_QUEUE_IO_RESUME = void NTAPI(WDFQUEUE queue, WDFREQUEST request);
/// IRQL <= DISPATCH_LEVEL. The platform calls it at DISPATCH_LEVEL when the sender cancels the
/// request, and at the canceller's level when its file is closed or its queue purged or deleted.
using EVT_WDF_IO_QUEUE_IO_CANCELED_ON_QUEUE = void NTAPI(WDFQUEUE queue, WDFREQUEST request);
using EVT_WDF_IO_QUEUE_STATE = void NTAPI(WDFQUEUE queue, WDFCONTEXT context);
using EVT_WDF_WORKITEM = void NTAPI(WDFWORKITEM workItem);

// --- Structures ----------------------------------------------------------------------------------

struct WDF_OBJECT_CONTEXT_TYPE_INFO {
    ULONG Size;
    const CHAR* ContextName;
    size_t ContextSize;
    const WDF_OBJECT_CONTEXT_TYPE_INFO* UniqueType;
    PVOID EvtDriverGetUniqueContextType;
};
using PCWDF_OBJECT_CONTEXT_TYPE_INFO = const WDF_OBJECT_CONTEXT_TYPE_INFO*;
static_assert(sizeof(WDF_OBJECT_CONTEXT_TYPE_INFO) == 40 &&
              offsetof(WDF_OBJECT_CONTEXT_TYPE_INFO, UniqueType) == 24);

struct WDF_OBJECT_ATTRIBUTES {
    ULONG Size;
    EVT_WDF_OBJECT_CONTEXT_CLEANUP* EvtCleanupCallback;
    EVT_WDF_OBJECT_CONTEXT_DESTROY* EvtDestroyCallback;
    WDF_EXECUTION_LEVEL ExecutionLevel;
    WDF_SYNCHRONIZATION_SCOPE SynchronizationScope;
    WDFOBJECT ParentObject;
    size_t ContextSizeOverride;
    PCWDF_OBJECT_CONTEXT_TYPE_INFO ContextTypeInfo;
};
using PWDF_OBJECT_ATTRIBUTES = WDF_OBJECT_ATTRIBUTES*;
static_assert(sizeof(WDF_OBJECT_ATTRIBUTES) == 56 &&
              offsetof(WDF_OBJECT_ATTRIBUTES, ContextTypeInfo) == 48);

struct WDF_DRIVER_CONFIG {
    ULONG Size;
    EVT_WDF_DRIVER_DEVICE_ADD* EvtDriverDeviceAdd;
    EVT_WDF_DRIVER_UNLOAD* EvtDriverUnload;
    ULONG DriverInitFlags;
    ULONG DriverPoolTag;
};
using PWDF_DRIVER_CONFIG = WDF_DRIVER_CONFIG*;
static_assert(sizeof(WDF_DRIVER_CONFIG) == 32);

struct WDF_IO_QUEUE_CONFIG {
    ULONG Size;
    WDF_IO_QUEUE_DISPATCH_TYPE DispatchType;
    WDF_TRI_STATE PowerManaged;
    BOOLEAN AllowZeroLengthRequests;
    BOOLEAN DefaultQueue;
    EVT_WDF_IO_QUEUE_IO_DEFAULT* EvtIoDefault;
    EVT_WDF_IO_QUEUE_IO_READ* EvtIoRead;
    EVT_WDF_IO_QUEUE_IO_WRITE* EvtIoWrite;
    EVT_WDF_IO_QUEUE_IO_DEVICE_CONTROL* EvtIoDeviceControl;
    EVT_WDF_IO_QUEUE_IO_DEVICE_CONTROL* EvtIoInternalDeviceControl;
    EVT_WDF_IO_QUEUE_IO_STOP* EvtIoStop;
    EVT_WDF_IO_QUEUE_IO_RESUME* EvtIoResume;
    EVT_WDF_IO_QUEUE_IO_CANCELED_ON_QUEUE* EvtIoCanceledOnQueue;
    union {
        struct {
            ULONG NumberOfPresentedRequests;
        } Parallel;
    } Settings;
    WDFDRIVER Driver;
};
using PWDF_IO_QUEUE_CONFIG = WDF_IO_QUEUE_CONFIG*;
static_assert(sizeof(WDF_IO_QUEUE_CONFIG) == 96 &&
              offsetof(WDF_IO_QUEUE_CONFIG, EvtIoDeviceControl) == 40 &&
              offsetof(WDF_IO_QUEUE_CONFIG, EvtIoCanceledOnQueue) == 72 &&
              offsetof(WDF_IO_QUEUE_CONFIG, Settings) == 80 &&
              offsetof(WDF_IO_QUEUE_CONFIG, Driver) == 88);

struct WDF_REQUEST_PARAMETERS {
    USHORT Size;
    UCHAR MinorFunction;
    WDF_REQUEST_TYPE Type;
    union {
        struct {
            PVOID SecurityContext;
            ULONG Options;
            alignas(8) USHORT FileAttributes;
            USHORT ShareAccess;
            ULONG EaLength;
        } Create;
        struct {
            size_t Length;
            ULONG Key;
            LONGLONG DeviceOffset;
        } ReadWrite;
        struct {
            size_t OutputBufferLength;
            alignas(8) size_t InputBufferLength;
            alignas(8) ULONG IoControlCode;
            PVOID Type3InputBuffer;
        } DeviceIoControl;
    } Parameters;
};
using PWDF_REQUEST_PARAMETERS = WDF_REQUEST_PARAMETERS*;
static_assert(sizeof(WDF_REQUEST_PARAMETERS) == 40 && offsetof(WDF_REQUEST_PARAMETERS, Type) == 4 &&
              offsetof(WDF_REQUEST_PARAMETERS, Parameters.DeviceIoControl.IoControlCode) == 24 &&
              offsetof(WDF_REQUEST_PARAMETERS, Parameters.DeviceIoControl.Type3InputBuffer) == 32);

struct WDF_WORKITEM_CONFIG {
    ULONG Size;
    EVT_WDF_WORKITEM* EvtWorkItemFunc;
    BOOLEAN AutomaticSerialization;
};
using PWDF_WORKITEM_CONFIG = WDF_WORKITEM_CONFIG*;
static_assert(sizeof(WDF_WORKITEM_CONFIG) == 24);

// --- Structures ready for use --------------------------------------------------------------------

inline void WDF_OBJECT_ATTRIBUTES_INIT(PWDF_OBJECT_ATTRIBUTES attributes) {
    *attributes = {};
    attributes->Size = sizeof(*attributes);
    attributes->ExecutionLevel = WdfExecutionLevelInheritFromParent;
    attributes->SynchronizationScope = WdfSynchronizationScopeInheritFromParent;
}
inline void WDF_DRIVER_CONFIG_INIT(PWDF_DRIVER_CONFIG config,
                                   EVT_WDF_DRIVER_DEVICE_ADD* deviceAdd) {
    *config = {};
    config->Size = sizeof(*config);
    config->EvtDriverDeviceAdd = deviceAdd;
}
inline void WDF_IO_QUEUE_CONFIG_INIT(PWDF_IO_QUEUE_CONFIG config,
                                     WDF_IO_QUEUE_DISPATCH_TYPE dispatchType) {
    *config = {};
    config->Size = sizeof(*config);
    config->PowerManaged = WdfUseDefault;
    config->DispatchType = dispatchType;
    if (dispatchType == WdfIoQueueDispatchParallel) {
        config->Settings.Parallel.NumberOfPresentedRequests = 0xFFFFFFFF;
    }
}
inline void WDF_IO_QUEUE_CONFIG_INIT_DEFAULT_QUEUE(PWDF_IO_QUEUE_CONFIG config,
                                                   WDF_IO_QUEUE_DISPATCH_TYPE dispatchType) {
    WDF_IO_QUEUE_CONFIG_INIT(config, dispatchType);
    config->DefaultQueue = TRUE;
}
inline void WDF_REQUEST_PARAMETERS_INIT(PWDF_REQUEST_PARAMETERS parameters) {
    *parameters = {};
    parameters->Size = sizeof(*parameters);
}
inline void WDF_WORKITEM_CONFIG_INIT(PWDF_WORKITEM_CONFIG config, EVT_WDF_WORKITEM* function) {
    *config = {};
    config->Size = sizeof(*config);
    config->EvtWorkItemFunc = function;
    config->AutomaticSerialization = TRUE;
}

/// Defines the context type `name` (a structure) and `accessor`(handle), which returns the object's
/// context of that type or null. The framework tells types apart by the address of their
/// description, hence one definition for the whole driver.
#define WDF_DECLARE_CONTEXT_TYPE_WITH_NAME(name, accessor)                                  \
    extern const WDF_OBJECT_CONTEXT_TYPE_INFO WDF_##name##_TYPE_INFO;                       \
    inline constexpr WDF_OBJECT_CONTEXT_TYPE_INFO WDF_##name##_TYPE_INFO = {                \
        sizeof(WDF_OBJECT_CONTEXT_TYPE_INFO), #name, sizeof(name), &WDF_##name##_TYPE_INFO, \
        nullptr};                                                                           \
    inline name* accessor(WDFOBJECT object) {                                               \
        return static_cast<name*>(                                                          \
            WdfObjectGetTypedContextWorker(object, &WDF_##name##_TYPE_INFO));               \
    }

// --- Function table ------------------------------------------------------------------------------

/// Index of a function in the table; append-only from version to version.
enum WDFFUNCENUM : ULONG {
    WdfControlDeviceInitAllocateTableIndex = 25,
    WdfControlDeviceInitSetShutdownNotificationTableIndex = 26,
    WdfControlFinishInitializingTableIndex = 27,
    WdfDeviceWdmGetDeviceObjectTableIndex = 31,
    WdfDeviceGetDriverTableIndex = 39,
    WdfDeviceInitFreeTableIndex = 54,
    WdfDeviceInitSetIoTypeTableIndex = 61,
    WdfDeviceInitSetExclusiveTableIndex = 62,
    WdfDeviceInitSetDeviceTypeTableIndex = 66,
    WdfDeviceInitAssignNameTableIndex = 67,
    WdfDeviceInitSetIoInCallerContextCallbackTableIndex = 74,
    WdfDeviceCreateTableIndex = 75,
    WdfDeviceCreateSymbolicLinkTableIndex = 80,
    WdfDeviceEnqueueRequestTableIndex = 91,
    WdfDriverCreateTableIndex = 116,
    WdfDriverGetRegistryPathTableIndex = 117,
    WdfDriverWdmGetDriverObjectTableIndex = 118,
    WdfIoQueueCreateTableIndex = 152,
    WdfIoQueueStartTableIndex = 154,
    WdfIoQueueStopTableIndex = 155,
    WdfIoQueueGetDeviceTableIndex = 157,
    WdfIoQueueRetrieveNextRequestTableIndex = 158,
    WdfIoQueueFindRequestTableIndex = 160,
    WdfIoQueueRetrieveFoundRequestTableIndex = 161,
    WdfIoQueuePurgeTableIndex = 165,
    WdfMemoryGetBufferTableIndex = 194,
    WdfObjectGetTypedContextWorkerTableIndex = 202,
    WdfObjectAllocateContextTableIndex = 203,
    WdfObjectContextGetObjectTableIndex = 204,
    WdfObjectReferenceActualTableIndex = 205,
    WdfObjectDereferenceActualTableIndex = 206,
    WdfObjectDeleteTableIndex = 208,
    WdfRequestCompleteTableIndex = 263,
    WdfRequestCompleteWithInformationTableIndex = 265,
    WdfRequestGetParametersTableIndex = 266,
    WdfRequestRetrieveInputBufferTableIndex = 269,
    WdfRequestRetrieveOutputBufferTableIndex = 270,
    WdfRequestRetrieveUnsafeUserOutputBufferTableIndex = 274,
    WdfRequestSetInformationTableIndex = 275,
    WdfRequestGetFileObjectTableIndex = 277,
    WdfRequestProbeAndLockUserBufferForWriteTableIndex = 279,
    WdfRequestForwardToIoQueueTableIndex = 281,
    WdfWorkItemCreateTableIndex = 379,
    WdfWorkItemEnqueueTableIndex = 380,
    WdfWorkItemGetParentObjectTableIndex = 381,
    WdfWorkItemFlushTableIndex = 382,
};

namespace wdf_detail {

/// Calls slot `index`, whose signature is that of the inline function that calls it.
template <typename Result, typename... Arguments>
Result Call(WDFFUNCENUM index, Arguments... arguments) {
    using Function = Result(NTAPI*)(PWDF_DRIVER_GLOBALS, Arguments...);
    return reinterpret_cast<Function>(WdfFunctions[index])(WdfDriverGlobals, arguments...);
}

}  // namespace wdf_detail

inline WDFDRIVER WdfGetDriver() {
    return WdfDriverGlobals->Driver;
}

/// Driver objects. PASSIVE_LEVEL, except WdfDriverWdmGetDriverObject.
inline NTSTATUS WdfDriverCreate(PDRIVER_OBJECT driverObject, PCUNICODE_STRING registryPath,
                                PWDF_OBJECT_ATTRIBUTES attributes, PWDF_DRIVER_CONFIG config,
                                WDFDRIVER* driver) {
    return wdf_detail::Call<NTSTATUS>(WdfDriverCreateTableIndex, driverObject, registryPath,
                                      attributes, config, driver);
}
/// The path is NUL-terminated and lives as long as the driver object.
inline PWSTR WdfDriverGetRegistryPath(WDFDRIVER driver) {
    return wdf_detail::Call<PWSTR>(WdfDriverGetRegistryPathTableIndex, driver);
}
inline PDRIVER_OBJECT WdfDriverWdmGetDriverObject(WDFDRIVER driver) {
    return wdf_detail::Call<PDRIVER_OBJECT>(WdfDriverWdmGetDriverObjectTableIndex, driver);
}

/// Control devices. PASSIVE_LEVEL where the framework allocates or names something.
inline PWDFDEVICE_INIT WdfControlDeviceInitAllocate(WDFDRIVER driver, PCUNICODE_STRING sddl) {
    return wdf_detail::Call<PWDFDEVICE_INIT>(WdfControlDeviceInitAllocateTableIndex, driver, sddl);
}
inline void WdfControlDeviceInitSetShutdownNotification(
    PWDFDEVICE_INIT init, EVT_WDF_DEVICE_SHUTDOWN_NOTIFICATION* callback, UCHAR flags) {
    wdf_detail::Call<void>(WdfControlDeviceInitSetShutdownNotificationTableIndex, init, callback,
                           flags);
}
/// From here on the device accepts opens.
inline void WdfControlFinishInitializing(WDFDEVICE device) {
    wdf_detail::Call<void>(WdfControlFinishInitializingTableIndex, device);
}
inline void WdfDeviceInitFree(PWDFDEVICE_INIT init) {
    wdf_detail::Call<void>(WdfDeviceInitFreeTableIndex, init);
}
inline void WdfDeviceInitSetIoType(PWDFDEVICE_INIT init, WDF_DEVICE_IO_TYPE type) {
    wdf_detail::Call<void>(WdfDeviceInitSetIoTypeTableIndex, init, type);
}
inline void WdfDeviceInitSetExclusive(PWDFDEVICE_INIT init, BOOLEAN exclusive) {
    wdf_detail::Call<void>(WdfDeviceInitSetExclusiveTableIndex, init, exclusive);
}
inline void WdfDeviceInitSetDeviceType(PWDFDEVICE_INIT init, DEVICE_TYPE type) {
    wdf_detail::Call<void>(WdfDeviceInitSetDeviceTypeTableIndex, init, type);
}
inline NTSTATUS WdfDeviceInitAssignName(PWDFDEVICE_INIT init, PCUNICODE_STRING name) {
    return wdf_detail::Call<NTSTATUS>(WdfDeviceInitAssignNameTableIndex, init, name);
}
inline void WdfDeviceInitSetIoInCallerContextCallback(PWDFDEVICE_INIT init,
                                                      EVT_WDF_IO_IN_CALLER_CONTEXT* callback) {
    wdf_detail::Call<void>(WdfDeviceInitSetIoInCallerContextCallbackTableIndex, init, callback);
}
/// Success consumes `*init` and sets it to null; on failure the caller still frees it.
inline NTSTATUS WdfDeviceCreate(PWDFDEVICE_INIT* init, PWDF_OBJECT_ATTRIBUTES attributes,
                                WDFDEVICE* device) {
    return wdf_detail::Call<NTSTATUS>(WdfDeviceCreateTableIndex, init, attributes, device);
}
inline NTSTATUS WdfDeviceCreateSymbolicLink(WDFDEVICE device, PCUNICODE_STRING name) {
    return wdf_detail::Call<NTSTATUS>(WdfDeviceCreateSymbolicLinkTableIndex, device, name);
}
inline PDEVICE_OBJECT WdfDeviceWdmGetDeviceObject(WDFDEVICE device) {
    return wdf_detail::Call<PDEVICE_OBJECT>(WdfDeviceWdmGetDeviceObjectTableIndex, device);
}
inline WDFDRIVER WdfDeviceGetDriver(WDFDEVICE device) {
    return wdf_detail::Call<WDFDRIVER>(WdfDeviceGetDriverTableIndex, device);
}
/// For EvtIoInCallerContext: hands the request to the device's queues.
inline NTSTATUS WdfDeviceEnqueueRequest(WDFDEVICE device, WDFREQUEST request) {
    return wdf_detail::Call<NTSTATUS>(WdfDeviceEnqueueRequestTableIndex, device, request);
}

/// Queues.
inline NTSTATUS WdfIoQueueCreate(WDFDEVICE device, PWDF_IO_QUEUE_CONFIG config,
                                 PWDF_OBJECT_ATTRIBUTES attributes, WDFQUEUE* queue) {
    return wdf_detail::Call<NTSTATUS>(WdfIoQueueCreateTableIndex, device, config, attributes,
                                      queue);
}
/// Accepts and dispatches requests.
inline void WdfIoQueueStart(WDFQUEUE queue) {
    wdf_detail::Call<void>(WdfIoQueueStartTableIndex, queue);
}
/// Goes on accepting requests but dispatches none; `complete` (may be null) runs once the driver
/// holds no request of the queue.
inline void WdfIoQueueStop(WDFQUEUE queue, EVT_WDF_IO_QUEUE_STATE* complete, WDFCONTEXT context) {
    wdf_detail::Call<void>(WdfIoQueueStopTableIndex, queue, complete, context);
}
/// Accepts no more and cancels what is queued; `complete` (may be null) runs once all are gone.
inline void WdfIoQueuePurge(WDFQUEUE queue, EVT_WDF_IO_QUEUE_STATE* complete, WDFCONTEXT context) {
    wdf_detail::Call<void>(WdfIoQueuePurgeTableIndex, queue, complete, context);
}
inline WDFDEVICE WdfIoQueueGetDevice(WDFQUEUE queue) {
    return wdf_detail::Call<WDFDEVICE>(WdfIoQueueGetDeviceTableIndex, queue);
}
inline NTSTATUS WdfIoQueueRetrieveNextRequest(WDFQUEUE queue, WDFREQUEST* request) {
    return wdf_detail::Call<NTSTATUS>(WdfIoQueueRetrieveNextRequestTableIndex, queue, request);
}
/// Finds the first request after `found` (from the start when null) and references it.
inline NTSTATUS WdfIoQueueFindRequest(WDFQUEUE queue, WDFREQUEST found, WDFFILEOBJECT fileObject,
                                      PWDF_REQUEST_PARAMETERS parameters, WDFREQUEST* request) {
    return wdf_detail::Call<NTSTATUS>(WdfIoQueueFindRequestTableIndex, queue, found, fileObject,
                                      parameters, request);
}
/// Takes a found request out of the queue; the caller then owns it and completes it.
inline NTSTATUS WdfIoQueueRetrieveFoundRequest(WDFQUEUE queue, WDFREQUEST found,
                                               WDFREQUEST* request) {
    return wdf_detail::Call<NTSTATUS>(WdfIoQueueRetrieveFoundRequestTableIndex, queue, found,
                                      request);
}

/// Objects, references, contexts and memory.
inline PVOID WdfObjectGetTypedContextWorker(WDFOBJECT object, PCWDF_OBJECT_CONTEXT_TYPE_INFO type) {
    return wdf_detail::Call<PVOID>(WdfObjectGetTypedContextWorkerTableIndex, object, type);
}
inline NTSTATUS WdfObjectAllocateContext(WDFOBJECT object, PWDF_OBJECT_ATTRIBUTES attributes,
                                         PVOID* context) {
    return wdf_detail::Call<NTSTATUS>(WdfObjectAllocateContextTableIndex, object, attributes,
                                      context);
}
inline WDFOBJECT WdfObjectContextGetObject(PVOID context) {
    return wdf_detail::Call<WDFOBJECT>(WdfObjectContextGetObjectTableIndex, context);
}
inline void WdfObjectReference(WDFOBJECT object) {
    wdf_detail::Call<void>(WdfObjectReferenceActualTableIndex, object, PVOID{nullptr}, LONG{0},
                           PCHAR{nullptr});
}
inline void WdfObjectDereference(WDFOBJECT object) {
    wdf_detail::Call<void>(WdfObjectDereferenceActualTableIndex, object, PVOID{nullptr}, LONG{0},
                           PCHAR{nullptr});
}
inline void WdfObjectDelete(WDFOBJECT object) {
    wdf_detail::Call<void>(WdfObjectDeleteTableIndex, object);
}
inline PVOID WdfMemoryGetBuffer(WDFMEMORY memory, size_t* size) {
    return wdf_detail::Call<PVOID>(WdfMemoryGetBufferTableIndex, memory, size);
}

/// Requests. A request is completed exactly once by the party that owns it.
inline void WdfRequestComplete(WDFREQUEST request, NTSTATUS status) {
    wdf_detail::Call<void>(WdfRequestCompleteTableIndex, request, status);
}
inline void WdfRequestCompleteWithInformation(WDFREQUEST request, NTSTATUS status,
                                              ULONG_PTR information) {
    wdf_detail::Call<void>(WdfRequestCompleteWithInformationTableIndex, request, status,
                           information);
}
inline void WdfRequestSetInformation(WDFREQUEST request, ULONG_PTR information) {
    wdf_detail::Call<void>(WdfRequestSetInformationTableIndex, request, information);
}
inline void WdfRequestGetParameters(WDFREQUEST request, PWDF_REQUEST_PARAMETERS parameters) {
    wdf_detail::Call<void>(WdfRequestGetParametersTableIndex, request, parameters);
}
inline NTSTATUS WdfRequestRetrieveInputBuffer(WDFREQUEST request, size_t minimum, PVOID* buffer,
                                              size_t* length) {
    return wdf_detail::Call<NTSTATUS>(WdfRequestRetrieveInputBufferTableIndex, request, minimum,
                                      buffer, length);
}
inline NTSTATUS WdfRequestRetrieveOutputBuffer(WDFREQUEST request, size_t minimum, PVOID* buffer,
                                               size_t* length) {
    return wdf_detail::Call<NTSTATUS>(WdfRequestRetrieveOutputBufferTableIndex, request, minimum,
                                      buffer, length);
}
/// Null when the device has no file-object configuration.
inline WDFFILEOBJECT WdfRequestGetFileObject(WDFREQUEST request) {
    return wdf_detail::Call<WDFFILEOBJECT>(WdfRequestGetFileObjectTableIndex, request);
}
/// METHOD_NEITHER only, in the caller's context; the address is the caller's, unprobed.
inline NTSTATUS WdfRequestRetrieveUnsafeUserOutputBuffer(WDFREQUEST request, size_t minimum,
                                                         PVOID* buffer, size_t* length) {
    return wdf_detail::Call<NTSTATUS>(WdfRequestRetrieveUnsafeUserOutputBufferTableIndex, request,
                                      minimum, buffer, length);
}
/// The memory object belongs to the request and is unlocked when that completes. PASSIVE_LEVEL.
inline NTSTATUS WdfRequestProbeAndLockUserBufferForWrite(WDFREQUEST request, PVOID buffer,
                                                         size_t length, WDFMEMORY* memory) {
    return wdf_detail::Call<NTSTATUS>(WdfRequestProbeAndLockUserBufferForWriteTableIndex, request,
                                      buffer, length, memory);
}
inline NTSTATUS WdfRequestForwardToIoQueue(WDFREQUEST request, WDFQUEUE queue) {
    return wdf_detail::Call<NTSTATUS>(WdfRequestForwardToIoQueueTableIndex, request, queue);
}

/// Work items.
inline NTSTATUS WdfWorkItemCreate(PWDF_WORKITEM_CONFIG config, PWDF_OBJECT_ATTRIBUTES attributes,
                                  WDFWORKITEM* workItem) {
    return wdf_detail::Call<NTSTATUS>(WdfWorkItemCreateTableIndex, config, attributes, workItem);
}
inline void WdfWorkItemEnqueue(WDFWORKITEM workItem) {
    wdf_detail::Call<void>(WdfWorkItemEnqueueTableIndex, workItem);
}
inline WDFOBJECT WdfWorkItemGetParentObject(WDFWORKITEM workItem) {
    return wdf_detail::Call<WDFOBJECT>(WdfWorkItemGetParentObjectTableIndex, workItem);
}
/// Waits until the item is neither queued nor running. PASSIVE_LEVEL.
inline void WdfWorkItemFlush(WDFWORKITEM workItem) {
    wdf_detail::Call<void>(WdfWorkItemFlushTableIndex, workItem);
}
