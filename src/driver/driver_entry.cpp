#include "driver/driver_entry.h"

#include <ntifs.h>
#include <wdf.h>

#include "channel/value_cache.h"
#include "driver/configuration.h"
#include "driver/control_device.h"
#include "driver/driver_state.h"
#include "driver/statistics.h"
#include "driver/tear_down.h"
#include "intercept/contexts.h"
#include "intercept/operation_table.h"
#include "intercept/tracing.h"

namespace zpregflt {

namespace {

/// Identifies this driver as a client of process tracking.
constexpr GUID kTrackingClientId = {
    0x3c0f5b92, 0x6f41, 0x4d0b, {0x8e, 0x17, 0x2a, 0xd9, 0x54, 0x61, 0xc3, 0x7e}};
/// Identifies this driver's exemption list.
constexpr GUID kExemptionListId = {
    0xa94e21d6, 0x0d38, 0x4b7a, {0x9f, 0x55, 0xc1, 0x86, 0x3b, 0xe2, 0x70, 0x14}};

constexpr ULONG kProcessContextTag = MakeTag("ZRpc");
constexpr ULONG kKeyEntryTag = MakeTag("ZRtc");
constexpr ULONG kCallContextTag = MakeTag("Zrls");
constexpr SIZE_T kCallContextSize = 16;

/// Full access for the system; reading, writing and executing for administrators; reading and
/// writing for everyone, reading for restricted code: which processes are served is decided
/// request by request.
constinit const UNICODE_STRING kDeviceSecurity =
    LiteralString(L"D:P(A;;GA;;;SY)(A;;GRGWGX;;;BA)(A;;GRGW;;;WD)(A;;GR;;;RC)");

/// No-execute pool exists from version 6.2 on.
POOL_TYPE ChoosePoolType() {
    OSVERSIONINFOW version = {};
    version.dwOSVersionInfoSize = sizeof(version);
    if (!NT_SUCCESS(RtlGetVersion(&version))) {
        return NonPagedPool;
    }
    const bool hasNx =
        version.dwMajorVersion > 6 || (version.dwMajorVersion == 6 && version.dwMinorVersion >= 2);
    return hasNx ? NonPagedPoolNx : NonPagedPool;
}

/// The support library discards a process's context.
void NTAPI ProcessContextCleanup(PVOID context) {
    if (ValueCache* cache = static_cast<ProcessContext*>(context)->ValueCachePointer();
        cache != nullptr) {
        ValueCacheDestroy(cache);
    }
}

NTSTATUS RegisterProcessTracking() {
    ProcessTrackingConfig config = {};
    config.Options = ZPK_TRACK_UNTIL_EXIT;
    config.ContextCleanup = ProcessContextCleanup;
    config.ContextSize = sizeof(ProcessContext);
    config.PoolTag = kProcessContextTag;
    config.PoolType = static_cast<ULONG>(NonPagedPoolType);
    const NTSTATUS status = ZPkPsRegister(&kTrackingClientId, &config, &State.ProcessTracking);
    if (NT_SUCCESS(status)) {
        State.InitProgress |= INIT_PROCESS_TRACKING;
    }
    return status;
}

NTSTATUS RegisterExemptions() {
    const NTSTATUS status = ZPkPeExemptRegister(&kExemptionListId, &State.Exemptions);
    if (NT_SUCCESS(status)) {
        State.InitProgress |= INIT_EXEMPTIONS;
    }
    return status;
}

NTSTATUS CreateKeyTree() {
    KeyTreeConfig config = {};
    config.ContextSize = sizeof(KeyEntry);
    config.PoolTag = kKeyEntryTag;
    config.PoolType = static_cast<ULONG>(NonPagedPoolType);
    const NTSTATUS status = ZPkDtInitialize(&config, ZPK_TREE_IGNORE_CASE, &State.KeyTree);
    if (NT_SUCCESS(status)) {
        State.InitProgress |= INIT_KEY_TREE;
    }
    return status;
}

void CreateCallContexts() {
    ExInitializePagedLookasideList(&State.CallContextLookaside, nullptr, nullptr, 0,
                                   kCallContextSize, kCallContextTag, 0);
    State.InitProgress |= INIT_CALL_CONTEXT_LOOKASIDE;
}

void NTAPI DriverUnload(WDFDRIVER) {
    ZPRF_TRACE(TRACE_DRIVER, TRACE_LEVEL_VERBOSE, "unloading");
}

NTSTATUS CreateDriver(PDRIVER_OBJECT driverObject, PUNICODE_STRING registryPath,
                      WDFDRIVER* driver) {
    WDF_OBJECT_ATTRIBUTES attributes;
    WDF_OBJECT_ATTRIBUTES_INIT(&attributes);
    attributes.EvtCleanupCallback = DriverContextCleanup;
    WDF_DRIVER_CONFIG config;
    WDF_DRIVER_CONFIG_INIT(&config, nullptr);
    config.EvtDriverUnload = DriverUnload;
    config.DriverInitFlags = WdfDriverInitNonPnpDriver;
    return WdfDriverCreate(driverObject, registryPath, &attributes, &config, driver);
}

/// The steps before there is a framework driver object: no trace yet, and nobody but this
/// function's caller to undo them.
NTSTATUS StartLibrary(PDRIVER_OBJECT driverObject, PUNICODE_STRING registryPath,
                      WDFDRIVER* driver) {
    NTSTATUS status = RegisterProcessTracking();
    if (!NT_SUCCESS(status)) {
        return status;
    }
    status = RegisterExemptions();
    if (!NT_SUCCESS(status)) {
        return status;
    }
    status = CreateKeyTree();
    if (!NT_SUCCESS(status)) {
        return status;
    }
    WriteULongNoFence(&State.LoggedOperations, operation::kDeleteKey | operation::kSetValueKey |
                                                   operation::kDeleteValueKey |
                                                   operation::kRenameKey);
    CreateCallContexts();
    return CreateDriver(driverObject, registryPath, driver);
}

/// The steps from there on: the framework undoes them through DriverContextCleanup.
NTSTATUS StartDriver(WDFDRIVER driver, PUNICODE_STRING registryPath) {
    StartTracing(DumpStatistics);
    ZPRF_TRACE(TRACE_DRIVER, TRACE_LEVEL_VERBOSE, "starting");
    PWDFDEVICE_INIT init = WdfControlDeviceInitAllocate(driver, &kDeviceSecurity);
    if (init == nullptr) {
        return STATUS_INSUFFICIENT_RESOURCES;
    }
    OpenParametersKey(registryPath);
    ReadParameters();
    return InitializeControlDevice(driver, init);
}

}  // namespace

}  // namespace zpregflt

NTSTATUS NTAPI DriverEntry(PDRIVER_OBJECT driverObject, PUNICODE_STRING registryPath) {
    using namespace zpregflt;
    NonPagedPoolType = ChoosePoolType();
    State = {};
    ClearOperationCounters();
    WDFDRIVER driver = nullptr;
    const NTSTATUS status = StartLibrary(driverObject, registryPath, &driver);
    if (!NT_SUCCESS(status)) {
        UndoLibrary();
        return status;
    }
    return StartDriver(driver, registryPath);
}
