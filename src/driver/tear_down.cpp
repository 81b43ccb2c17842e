#include "driver/tear_down.h"

#include <ntifs.h>

#include "channel/memory.h"
#include "channel/value_cache.h"
#include "driver/driver_state.h"
#include "intercept/key_context.h"
#include "intercept/tracing.h"

namespace zpregflt {

namespace {

bool Completed(ULONG step) {
    return (State.InitProgress & step) != 0;
}

/// Once this has returned no notification reaches the driver, and every key object context has been
/// released through the callback.
void UnregisterCallback() {
    ZPRF_TRACE(TRACE_DRIVER, TRACE_LEVEL_VERBOSE, "unregistering the registry callback");
    if (Completed(INIT_REGISTRY_CALLBACK)) {
        CmUnRegisterCallback(State.CallbackCookie);
    }
    ZPRF_TRACE(TRACE_DRIVER, TRACE_LEVEL_VERBOSE, "registry callback unregistered");
}

void ReleaseConfiguration() {
    if (State.ParametersKey != nullptr) {
        ZwClose(State.ParametersKey);
        State.ParametersKey = nullptr;
    }
    if (State.TraceProcessName != nullptr) {
        ExFreePoolWithTag(State.TraceProcessName, kParameterTag);
        State.TraceProcessName = nullptr;
    }
}

void UnregisterProcessTracking() {
    if (Completed(INIT_PROCESS_TRACKING)) {
        ZPkPsUnregister(State.ProcessTracking);
        State.ProcessTracking = nullptr;
    }
}

void UnregisterExemptions() {
    if (Completed(INIT_EXEMPTIONS)) {
        ZPkPeExemptUnregister(State.Exemptions);
    }
}

void DestroyKeyTree() {
    if (Completed(INIT_KEY_TREE)) {
        ZPkDtDestroy(State.KeyTree);
    }
}

void DeleteCallContexts() {
    if (Completed(INIT_CALL_CONTEXT_LOOKASIDE)) {
        ExDeletePagedLookasideList(&State.CallContextLookaside);
    }
}

/// Nothing of the driver uses them any more: they go in the order in which they came.
void ReleaseLibrary() {
    UnregisterProcessTracking();
    UnregisterExemptions();
    DestroyKeyTree();
    DeleteCallContexts();
}

}  // namespace

void UndoLibrary() {
    DeleteCallContexts();
    DestroyKeyTree();
    UnregisterExemptions();
    UnregisterProcessTracking();
}

void NTAPI DriverContextCleanup(WDFOBJECT driver) {
    UnregisterCallback();
    if (Completed(INIT_POOLS)) {
        MemUninitialize();
        UninitializeKeyContexts();
    }
    if (Completed(INIT_BUFFER_QUEUE)) {
        WdfObjectDereference(State.BufferQueue);
    }
    ReleaseLibrary();
    ReleaseConfiguration();
    ValueCacheReportTotals();
    if (Completed(INIT_POOLS)) {
        ValueCacheUninitialize();
    }
    ZPRF_TRACE(TRACE_DRIVER, TRACE_LEVEL_VERBOSE, "driver %p stopped", driver);
    StopTracing();
}

}  // namespace zpregflt
