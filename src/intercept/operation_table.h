// One row for every registry notification class: who handles it, behind which gates.
#pragma once

#include <ntifs.h>

#include "driver/driver_state.h"
#include "records/record_format.h"

namespace zpregflt {

/// Handles one notification; true when it wrote a record.
using OperationHandler = bool NTAPI(PVOID notification, DriverState* state);

/// The key object must carry a KeyObjectContext, whose KeyOperations gains the row's mask.
inline constexpr ULONG OP_FLAG_CONTEXT = 0x1;
/// The process that opened the key must have the row's mask among its operations.
inline constexpr ULONG OP_FLAG_POLICY = 0x2;
/// Post-notification: the operation must have ended with STATUS_SUCCESS.
inline constexpr ULONG OP_FLAG_SUCCESS = 0x4;
/// The key must have a KeyEntry; a missing one is made.
inline constexpr ULONG OP_FLAG_KEY_ENTRY = 0x8;
/// No gate at all.
inline constexpr ULONG OP_FLAG_DIRECT = 0x10;
/// System threads are watched too.
inline constexpr ULONG OP_FLAG_SYSTEM = 0x20;

struct OperationEntry {
    OperationHandler* Handler;  ///< null: not handled
    ULONG Flags;
    OperationMask Mask;
    ULONG64 ObjectOffset;         ///< of Object in the notification's structure
    ULONG64 ObjectContextOffset;  ///< of ObjectContext; 0 where no gate reads it
    const char* Name;             ///< the class, as the system spells it

    // Interlocked; only ever grow between start-up and unload.
    LONG64 Hit;     ///< notifications received
    LONG64 Fail;    ///< dropped since the operation did not succeed
    LONG64 Filter;  ///< dropped since the opener does not watch the operation
    LONG64 Log;     ///< a record was written
};

inline constexpr ULONG kOperationClassCount = 49;

/// Indexed by REG_NOTIFY_CLASS. Only the counters change.
extern OperationEntry OperationTable[kOperationClassCount];

/// Sets every counter to zero; only while no notification can come.
void ClearOperationCounters();

}  // namespace zpregflt
