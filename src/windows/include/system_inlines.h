// What the kernel does not export: its headers supply it inline.
//
// Included by wdm.h, behind the types and routines that it needs. The build for Linux has a header
// of the same name in src/platform/include.
#pragma once

// Nonpaged lookaside lists. IRQL <= DISPATCH_LEVEL.
inline PVOID ExAllocateFromNPagedLookasideList(PNPAGED_LOOKASIDE_LIST list) {
    GENERAL_LOOKASIDE& l = list->L;
    __atomic_fetch_add(&l.TotalAllocates, 1, __ATOMIC_RELAXED);
    PVOID block = ExpInterlockedPopEntrySList(&l.ListHead);
    if (block == nullptr) {
        __atomic_fetch_add(&l.AllocateMisses, 1, __ATOMIC_RELAXED);
        block = l.Allocate(l.Type, l.Size, l.Tag);
    }
    return block;
}

inline void ExFreeToNPagedLookasideList(PNPAGED_LOOKASIDE_LIST list, PVOID block) {
    GENERAL_LOOKASIDE& l = list->L;
    __atomic_fetch_add(&l.TotalFrees, 1, __ATOMIC_RELAXED);
    if (QueryDepthSList(&l.ListHead) >= __atomic_load_n(&l.Depth, __ATOMIC_RELAXED)) {
        __atomic_fetch_add(&l.FreeMisses, 1, __ATOMIC_RELAXED);
        l.Free(block);
    } else {
        ExpInterlockedPushEntrySList(&l.ListHead, static_cast<PSLIST_ENTRY>(block));
    }
}

/// System time in 100-nanosecond intervals since 1 January 1601 (UTC): one load from the page that
/// the kernel shares with everybody, at a fixed address. Any IRQL.
inline void KeQuerySystemTime(PLARGE_INTEGER time) {
    time->QuadPart = *reinterpret_cast<const volatile LONGLONG*>(0xFFFFF78000000014ULL);
}

/// Marks data that the kernel exports: it is reached through a slot of the import table.
#define NTKERNEL_DATA __declspec(dllimport)
