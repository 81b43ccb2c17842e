// What the kernel's headers supply inline and the platform supplies as routines and data.
//
// Included by wdm.h, behind the types and routines that it needs. The build for Windows has a
// header of the same name in src/windows/include.
#pragma once

extern "C" {
// Nonpaged lookaside lists. IRQL <= DISPATCH_LEVEL. Routines, so that the platform can make them
// fail and follow each block.
PVOID NTAPI ExAllocateFromNPagedLookasideList(PNPAGED_LOOKASIDE_LIST list);
void NTAPI ExFreeToNPagedLookasideList(PNPAGED_LOOKASIDE_LIST list, PVOID block);

// The fixed address of Windows' shared page cannot be mapped into a Linux process, so the platform
// has a word of its own.
extern volatile LONGLONG KiSharedSystemTime;
}

/// System time in 100-nanosecond intervals since 1 January 1601 (UTC). Any IRQL.
inline void KeQuerySystemTime(PLARGE_INTEGER time) {
    time->QuadPart = __atomic_load_n(&KiSharedSystemTime, __ATOMIC_RELAXED);
}

/// Marks data that the kernel exports.
#define NTKERNEL_DATA
