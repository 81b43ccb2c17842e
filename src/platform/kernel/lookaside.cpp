// Lookaside lists: blocks of one size, kept for the next taker with the contents they had.
#include "platform/kernel/fault_injection.h"
#include "platform/kernel/pool.h"
#include "platform/kernel/pool_registry.h"
#include "platform/kernel/verifier.h"

namespace platform {

namespace {

constexpr USHORT kSystemDepth = 256;
constexpr SIZE_T kSmallestEntry = sizeof(SLIST_ENTRY);

/// The names under which one kind of list is checked and made to fail.
struct Routines {
    const char* initialize;
    const char* remove;
    const char* allocate;
    const char* free;
    KIRQL highest;
};

constexpr Routines kNPaged{"ExInitializeNPagedLookasideList", "ExDeleteNPagedLookasideList",
                           "ExAllocateFromNPagedLookasideList", "ExFreeToNPagedLookasideList",
                           DISPATCH_LEVEL};
constexpr Routines kPaged{"ExInitializePagedLookasideList", "ExDeletePagedLookasideList",
                          "ExAllocateFromPagedLookasideList", "ExFreeToPagedLookasideList",
                          APC_LEVEL};

PVOID NTAPI AllocateEntry(POOL_TYPE type, SIZE_T size, ULONG tag) {
    return AllocatePool(type, size, tag);
}

void NTAPI FreeEntry(PVOID block) {
    FreePool("ExFreePool", block, 0);
}

/// Failed allocations, which count as allocations too: in a member that is nobody else's.
ULONG& FailedAllocates(GENERAL_LOOKASIDE& list) {
    return list.Future[0];
}

void Count(ULONG& counter) {
    __atomic_fetch_add(&counter, 1, __ATOMIC_RELAXED);
}

ULONG Read(const ULONG& counter) {
    return __atomic_load_n(&counter, __ATOMIC_RELAXED);
}

/// Out of line and NTAPI, as every seldom path of taking and giving back: see held_locks.h.
[[noreturn, gnu::noinline]] void NTAPI NotInitialized(const char* routine,
                                                      const GENERAL_LOOKASIDE& list) {
    Violation(Rule::kPoolBadRequest,
              std::string(routine) + ": the lookaside list is not initialised", &list);
}

void CheckList(const char* routine, const GENERAL_LOOKASIDE& list) {
    if (list.Allocate == nullptr && VerifierEnabled()) NotInitialized(routine, list);
}

void Initialize(const Routines& routines, GENERAL_LOOKASIDE& list, POOL_TYPE type,
                PALLOCATE_FUNCTION allocate, PFREE_FUNCTION free, SIZE_T size, ULONG tag,
                USHORT depth) {
    RequireIrql(routines.initialize, DISPATCH_LEVEL);
    if (VerifierEnabled() && size < kSmallestEntry) {
        Violation(Rule::kPoolBadRequest,
                  std::string(routines.initialize) + ": entries of " + std::to_string(size) +
                      " bytes; at least " + std::to_string(kSmallestEntry) + " are needed",
                  &list, tag);
    }
    list = {};
    InitializeSListHead(&list.ListHead);
    list.Depth = depth == 0 ? kSystemDepth : depth;
    list.MaximumDepth = list.Depth;
    list.Type = type;
    list.Tag = tag;
    list.Size = static_cast<ULONG>(size);
    list.Allocate = allocate != nullptr ? allocate : AllocateEntry;
    list.Free = free != nullptr ? free : FreeEntry;
    InitializeListHead(&list.ListEntry);
}

void Delete(const Routines& routines, GENERAL_LOOKASIDE& list) {
    RequireIrql(routines.remove, routines.highest);
    CheckList(routines.remove, list);
    const ULONG out =
        Read(list.TotalAllocates) - Read(FailedAllocates(list)) - Read(list.TotalFrees);
    if (out != 0 && VerifierEnabled()) {
        Violation(Rule::kLookasideLeaked,
                  std::string(routines.remove) + ": " + std::to_string(static_cast<LONG>(out)) +
                      " blocks with tag " + TagText(list.Tag) + " were not given back",
                  &list, list.Tag);
    }
    while (PSLIST_ENTRY entry = ExpInterlockedPopEntrySList(&list.ListHead)) {
        if (VerifierEnabled()) NoteTaken(entry);
        list.Free(entry);
    }
    list.Allocate = nullptr;
}

PVOID NTAPI Allocate(const Routines& routines, GENERAL_LOOKASIDE& list) {
    RequireIrql(routines.allocate, routines.highest);
    CheckList(routines.allocate, list);
    if (FailThisCall(routines.allocate, list.Tag)) return nullptr;
    Count(list.TotalAllocates);
    if (PSLIST_ENTRY entry = ExpInterlockedPopEntrySList(&list.ListHead)) {
        if (VerifierEnabled()) NoteTaken(entry);
        return entry;
    }
    Count(list.AllocateMisses);
    const PVOID block = list.Allocate(list.Type, list.Size, list.Tag);
    if (block == nullptr) Count(FailedAllocates(list));
    return block;
}

void NTAPI Free(const Routines& routines, GENERAL_LOOKASIDE& list, PVOID block) {
    RequireIrql(routines.free, routines.highest);
    CheckList(routines.free, list);
    Count(list.TotalFrees);
    if (QueryDepthSList(&list.ListHead) >= list.Depth) {
        Count(list.FreeMisses);
        list.Free(block);
        return;
    }
    if (VerifierEnabled()) NoteCached(routines.free, block);
    ExpInterlockedPushEntrySList(&list.ListHead, static_cast<PSLIST_ENTRY>(block));
}

}  // namespace
}  // namespace platform

using platform::kNPaged;
using platform::kPaged;

extern "C" {

void NTAPI ExInitializeNPagedLookasideList(PNPAGED_LOOKASIDE_LIST list, PALLOCATE_FUNCTION allocate,
                                           PFREE_FUNCTION free, ULONG flags, SIZE_T size, ULONG tag,
                                           USHORT depth) {
    const POOL_TYPE type = (flags & POOL_NX_ALLOCATION) != 0 ? NonPagedPoolNx : NonPagedPool;
    platform::Initialize(kNPaged, list->L, type, allocate, free, size, tag, depth);
}

void NTAPI ExDeleteNPagedLookasideList(PNPAGED_LOOKASIDE_LIST list) {
    platform::Delete(kNPaged, list->L);
}

PVOID NTAPI ExAllocateFromNPagedLookasideList(PNPAGED_LOOKASIDE_LIST list) {
    return platform::Allocate(kNPaged, list->L);
}

void NTAPI ExFreeToNPagedLookasideList(PNPAGED_LOOKASIDE_LIST list, PVOID block) {
    platform::Free(kNPaged, list->L, block);
}

void NTAPI ExInitializePagedLookasideList(PPAGED_LOOKASIDE_LIST list, PALLOCATE_FUNCTION allocate,
                                          PFREE_FUNCTION free, ULONG, SIZE_T size, ULONG tag,
                                          USHORT depth) {
    platform::Initialize(kPaged, list->L, PagedPool, allocate, free, size, tag, depth);
}

void NTAPI ExDeletePagedLookasideList(PPAGED_LOOKASIDE_LIST list) {
    platform::Delete(kPaged, list->L);
}

PVOID NTAPI ExAllocateFromPagedLookasideList(PPAGED_LOOKASIDE_LIST list) {
    return platform::Allocate(kPaged, list->L);
}

void NTAPI ExFreeToPagedLookasideList(PPAGED_LOOKASIDE_LIST list, PVOID block) {
    platform::Free(kPaged, list->L, block);
}

}  // extern "C"
