// The event buffer pool: where records are written and how filled buffers leave.
//
// A record writer calls MemReserve, stores the record's Type and a NextOffset of 0, MemCommit,
// fills the rest, MemRelease. Space that stays out of the chain (a key path, an abandoned record)
// is released without MemCommit. All routines run at or below DISPATCH_LEVEL unless they say
// otherwise.
//
// Locks. BufferPool::lock guards the lists, which buffer is in which, the `fill` and
// `reservationCount` of every buffer, `live`, and the two reservation counters. Each buffer's
// chainLock guards its `last` and the NextOffset fields written through it. Neither is held while
// the other is taken, nor while anything outside the pool is called. A key entry's EntryLock may be
// held around every call here; never the reverse.
//
// Who owns a client buffer's request. While the buffer is active or sealed, the parked request
// belongs to the framework's queue. Two parties can take it out: the last release of the buffer, to
// deliver it, and the framework, when the request is cancelled. The queue lets exactly one of them
// have it. Whoever has it waits for the other side to be done with the buffer:
//  - Delivery happens only when no reference is left, so no writer is on the client's memory.
//  - A cancelled request is completed only when no reference is left either: the cancel callback
//    marks the buffer not live, takes it out of use, drops the base reference if sealing has not,
//    and the last release completes the request.
//  - When the last release finds that the request has left the queue, the cancel callback is on its
//    way: the buffer stays in FinishingList with `orphaned` set, and the callback completes the
//    request and frees the descriptor.
//  - A delivered request is completed when its descriptor is out of every list: its handle may be
//    another request's from then on.
// Hence the invariant: a descriptor is freed exactly once, by the party that finds, under the pool
// lock, that the other one has been there (or can no longer come), and the client's memory is not
// touched after the request's completion.
#pragma once

#include <wdf.h>

#include "channel/buffer_format.h"

namespace zpregflt {

/// Framework object context of a buffer request: the client's output buffer, locked for writing.
/// The memory object belongs to the request.
struct ZPRF_REQUEST_CONTEXT {
    WDFMEMORY Memory;
};
WDF_DECLARE_CONTEXT_TYPE_WITH_NAME(ZPRF_REQUEST_CONTEXT, GetRequestContext)

/// Descriptor of one buffer; from a nonpaged lookaside list. It is in exactly one list of the pool
/// from its adding until its last release has finished it.
struct EventBuffer {
    LIST_ENTRY links;
    /// Tells a buffer's fillings apart: drawn when it is added and when a boot buffer is reset.
    ULONG sequence;
    /// One base reference until it is sealed, one for each reservation not yet released.
    volatile LONG refCount;
    /// Reservations made since it was added or reset, those of boot buffers copied into it
    /// included.
    ULONG reservationCount;
    WDFREQUEST request;  ///< null for a boot buffer
    UCHAR* base;
    ULONG64 capacity;  ///< bytes: length of the buffer less its BufferHeader
    UCHAR* fill;       ///< next free byte
    UCHAR live;        ///< 0 once the request was withdrawn: never delivered
    KSPIN_LOCK chainLock;
    UCHAR* last;  ///< last committed record, or `base`

    /// What the request of a buffer that is not live completes with.
    NTSTATUS withdrawStatus;
    /// In FinishingList, and the last release found its request gone from the queue.
    bool orphaned;
    /// Its last release came while a dump held the lists; next in BufferPool::deferredReleases.
    EventBuffer* nextDeferred;
    /// The list of a buffer that a dump has taken out.
    PLIST_ENTRY home;
};

enum class PoolPhase : LONG {
    kBoot = 0,      ///< from MemInitialize on
    kNormal = 1,    ///< set with each client buffer
    kShutdown = 2,  ///< set with each dump
};
inline constexpr ULONG kPoolPhaseCount = 3;

/// The pool's state; one instance, zeroed by MemInitialize.
struct BufferPool {
    // Written for every reservation: one line with the list head that it looks at.
    alignas(64) KSPIN_LOCK lock;
    LIST_ENTRY ActiveList;   ///< accept reservations; the first is the current buffer
    LIST_ENTRY SealedList;   ///< full, flushed or withdrawn; waiting for their last writer
    LIST_ENTRY PendingList;  ///< boot buffers waiting for a client buffer; refCount 0
    NPAGED_LOOKASIDE_LIST descriptors;
    UCHAR* bootMemory;
    volatile LONG sequenceCounter;
    volatile LONG phase;  ///< PoolPhase
    volatile LONG64 firstRequestTime;
    PVOID volatile dumpFile;  ///< kernel handle; set once
    /// Reservations by phase: made, and failed for lack of space. Guarded by `lock`.
    volatile LONG64 reserveOk[kPoolPhaseCount];
    volatile LONG64 reserveFailed[kPoolPhaseCount];

    /// Buffers whose last release is at work: no reference left, being delivered or handed over.
    LIST_ENTRY FinishingList;
    /// During a dump of the whole pool: the buffers of the three lists, and the last releases that
    /// wait for its end. No hand-over begins then.
    bool dumping;
    LIST_ENTRY DumpList;
    EventBuffer* deferredReleases;
    /// Signalled while nobody writes to the dump file; a block's two writes must not be parted.
    KEVENT dumpFileIdle;
};

extern BufferPool Pool;

/// MemReserve: only in the current buffer, and only if its sequence is the given one.
inline constexpr ULONG MEM_RESERVE_SAME_BUFFER = 1;
/// MemReserve: only in buffers of client requests, stopping at the first boot buffer.
inline constexpr ULONG MEM_RESERVE_CLIENT_BUFFER = 2;

/// Builds the pool and, memory permitting, its three boot buffers. PASSIVE_LEVEL.
void MemInitialize();
/// Frees everything that the pool holds; completes no request. No writer and no request may be left
/// at work. PASSIVE_LEVEL.
void MemUninitialize();

/// Adds a client's buffer (`request`, with its ZPRF_REQUEST_CONTEXT) or boot memory (`base`,
/// `length`). For a request `parking` receives the buffer with a reference that keeps it from being
/// delivered until the caller has parked the request and releases it.
/// STATUS_INVALID_PARAMETER: no context, or shorter than kMinimumBufferSize. STATUS_NO_MEMORY.
NTSTATUS MemAddBuffer(WDFREQUEST request, PVOID base, size_t length, EventBuffer** parking);

/// Reserves `*size` bytes, rounded up to a multiple of 8 and written back. Returns the space, whose
/// contents are undefined, with a reference on `*buffer` (MemRelease) and the buffer's sequence; or
/// null. A refusal because of a flag is not counted, lack of space is.
PVOID MemReserve(ULONG* size, EventBuffer** buffer, ULONG* sequence, ULONG flags);
/// Appends the record, whose Type and zero NextOffset are written, to its buffer's chain.
void MemCommit(EventBuffer* buffer, PVOID record);
/// Drops one reference. The last one delivers a client buffer and hands a boot buffer's contents
/// on.
void MemRelease(EventBuffer* buffer);
/// Seals the current buffer, and the one behind it if that was a boot buffer.
void MemFlush();

/// Takes over a buffer request that was cancelled or could not be parked: its buffer takes no more
/// records, and when its last writer is done its image goes to the dump file, if there is one, and
/// the request is completed with `status`.
void MemCancelBuffer(WDFREQUEST request, NTSTATUS status);

/// Makes the file behind the calling process's handle the dump file, until unload. PASSIVE_LEVEL.
/// STATUS_OBJECT_NAME_COLLISION: there is one. STATUS_INVALID_PARAMETER: not a file, not writable.
NTSTATUS MemSetDumpFile(HANDLE handle);
/// Writes every live buffer to the dump file, if there is one. PASSIVE_LEVEL.
void MemDump();

}  // namespace zpregflt
