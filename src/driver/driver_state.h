// The driver-wide state record, which is also the registry callback's context.
#pragma once

#include <wdf.h>

#include "supportlib/zpklib.h"

namespace zpregflt {

/// Steps of start-up that tear-down has to undo, in the order in which they are taken.
inline constexpr ULONG INIT_PROCESS_TRACKING = 0x1;
inline constexpr ULONG INIT_EXEMPTIONS = 0x2;
inline constexpr ULONG INIT_KEY_TREE = 0x4;
inline constexpr ULONG INIT_CALL_CONTEXT_LOOKASIDE = 0x8;
inline constexpr ULONG INIT_BUFFER_QUEUE = 0x10;
inline constexpr ULONG INIT_POOLS = 0x20;
inline constexpr ULONG INIT_REGISTRY_CALLBACK = 0x40;

/// One instance, cleared early in start-up. Handles live from the step that sets them to tear-down.
/// Settings that control requests change are single aligned stores and are read without a lock,
/// through the accessors below.
struct DriverState {
    ZPK_PROCESS_TRACKING* ProcessTracking;
    ZPK_EXEMPTIONS* Exemptions;
    ULONG InitProgress;
    /// Grows by one with every change of the exemption list; interlocked.
    volatile LONG ExemptionGeneration;
    /// Manual queue of parked buffer requests; the driver holds a reference on it (see tear-down).
    WDFQUEUE BufferQueue;
    LARGE_INTEGER CallbackCookie;
    HANDLE ParametersKey;
    ZPK_KEY_TREE* KeyTree;
    /// Operations that a process's context, when it is created, is told to record.
    volatile ULONG LoggedOperations;
    WDFDEVICE ControlDevice;
    PAGED_LOOKASIDE_LIST CallContextLookaside;

    ULONG64 TraceProcessId;
    PUNICODE_STRING TraceProcessName;  ///< pool block, tag kParameterTag, or null
    ULONG TraceOperations;
    volatile ULONG ReportOriginal;  ///< readers test the low-order byte
    volatile ULONG CaptureMaxSize;  ///< bytes
    ULONG Override;
    ULONG ReportOperations;
};

inline constexpr ULONG kParameterTag = MakeTag("ZRcs");

extern DriverState State;

/// Pool type of every nonpaged allocation: no-execute where the system has it.
extern POOL_TYPE NonPagedPoolType;

}  // namespace zpregflt
