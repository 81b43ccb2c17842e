#include "channel/memory.h"

#include <lock_guards.h>

#include "channel/memory_internal.h"
#include "driver/driver_state.h"
#include "intercept/tracing.h"

namespace zpregflt {

constinit BufferPool Pool = {};

namespace {

constexpr SIZE_T kBootBufferSize = 0x10000;
constexpr SIZE_T kBootBufferCount = 3;

ULONG NextSequence() {
    return static_cast<ULONG>(InterlockedIncrement(&Pool.sequenceCounter));
}

void InitializeHeader(UCHAR* base) {
    *reinterpret_cast<BufferHeader*>(base) = {};
}

/// Starts a filling of the buffer: its first, or the next one of a boot buffer.
void StartFilling(EventBuffer& buffer) {
    buffer.sequence = NextSequence();
    buffer.reservationCount = 0;
    buffer.fill = buffer.base + sizeof(BufferHeader);
    buffer.last = buffer.base;
    InitializeHeader(buffer.base);
    WriteRelease(&buffer.refCount, 1);
}

void InitializeDescriptor(EventBuffer& buffer, WDFREQUEST request, UCHAR* base, size_t length) {
    buffer = {};
    buffer.request = request;
    buffer.base = base;
    buffer.capacity = length - sizeof(BufferHeader);
    buffer.live = 1;
    KeInitializeSpinLock(&buffer.chainLock);
    StartFilling(buffer);
}

/// The next client buffer to be used is the one lent last, so that an idle client's buffers are
/// filled one at a time. Returns the boot buffer whose turn it is to be handed over, now in
/// FinishingList, or null.
EventBuffer* EnterClientBuffer(EventBuffer& buffer) {
    const QueuedSpinLockGuard guard(Pool.lock);
    PLIST_ENTRY position = IsListEmpty(&Pool.ActiveList) ? &Pool.ActiveList : Pool.ActiveList.Flink;
    InsertHeadList(position, &buffer.links);
    if (Pool.dumping || IsListEmpty(&Pool.PendingList)) {
        return nullptr;
    }
    PLIST_ENTRY pending = RemoveHeadList(&Pool.PendingList);
    InsertTailList(&Pool.FinishingList, pending);
    return CONTAINING_RECORD(pending, EventBuffer, links);
}

void EnterBootBuffer(EventBuffer& buffer) {
    const QueuedSpinLockGuard guard(Pool.lock);
    InsertTailList(&Pool.ActiveList, &buffer.links);
}

/// Where a client request's buffer lies; false for a request that carries none.
bool LocateRequestBuffer(WDFREQUEST request, PVOID* base, size_t* length) {
    const ZPRF_REQUEST_CONTEXT* context = GetRequestContext(request);
    if (context == nullptr || context->Memory == nullptr) {
        return false;
    }
    *base = WdfMemoryGetBuffer(context->Memory, length);
    return true;
}

void NoteClientRequest() {
    SetPhase(PoolPhase::kNormal);
    LARGE_INTEGER now;
    KeQuerySystemTime(&now);
    if (InterlockedCompareExchange64(&Pool.firstRequestTime, now.QuadPart, 0) == 0) {
        ZPRF_TRACE(TRACE_BUFFER, TRACE_LEVEL_INFORMATION,
                   "first buffer request, %lld after the client's start (100 ns)",
                   now.QuadPart - PsGetProcessCreateTimeQuadPart(IoGetCurrentProcess()));
    }
}

/// The outcome of looking for space, as it is counted.
enum class Outcome { kReserved, kNoSpace, kRefused, kSealed };

struct Reservation {
    Outcome outcome;
    EventBuffer* buffer = nullptr;  ///< reserved in, or sealed and to be released
    PVOID space = nullptr;
};

bool Fits(const EventBuffer& buffer, ULONG64 size) {
    return size < static_cast<ULONG64>(buffer.base + buffer.capacity - buffer.fill);
}

Reservation ReserveIn(EventBuffer& buffer, ULONG64 size, ULONG* sequence) {
    const Reservation reservation = {Outcome::kReserved, &buffer, buffer.fill};
    *sequence = buffer.sequence;
    buffer.fill += size;
    InterlockedIncrement(&buffer.refCount);
    ++buffer.reservationCount;
    return reservation;
}

/// One look through the active buffers. The pool lock is held.
Reservation TryReserve(ULONG64 size, ULONG* sequence, ULONG flags) {
    for (PLIST_ENTRY entry = Pool.ActiveList.Flink; entry != &Pool.ActiveList;
         entry = entry->Flink) {
        EventBuffer& buffer = *CONTAINING_RECORD(entry, EventBuffer, links);
        if ((flags & MEM_RESERVE_CLIENT_BUFFER) != 0 && buffer.request == nullptr) {
            return {Outcome::kRefused};
        }
        if ((flags & MEM_RESERVE_SAME_BUFFER) != 0 && buffer.sequence != *sequence) {
            return {Outcome::kRefused};
        }
        if (Fits(buffer, size)) {
            return ReserveIn(buffer, size, sequence);
        }
        if ((flags & MEM_RESERVE_SAME_BUFFER) != 0) {
            return {Outcome::kRefused};
        }
        if (buffer.reservationCount != 0) {
            RemoveEntryList(&buffer.links);
            InsertTailList(&Pool.SealedList, &buffer.links);
            return {Outcome::kSealed, &buffer};
        }
    }
    return {Outcome::kNoSpace};
}

void Count(volatile LONG64 (&counters)[kPoolPhaseCount]) {
    volatile LONG64* counter = &counters[ReadNoFence(&Pool.phase)];
    WriteNoFence64(counter, ReadNoFence64(counter) + 1);
}

/// TryReserve under the pool lock, counted.
Reservation LookForSpace(ULONG64 size, ULONG* sequence, ULONG flags) {
    const QueuedSpinLockGuard guard(Pool.lock);
    const Reservation reservation =
        size <= MAXULONG ? TryReserve(size, sequence, flags) : Reservation{Outcome::kNoSpace};
    if (reservation.outcome == Outcome::kReserved) {
        Count(Pool.reserveOk);
    } else if (reservation.outcome == Outcome::kNoSpace) {
        Count(Pool.reserveFailed);
    }
    return reservation;
}

/// Appends a copy of the source's reservations, which lies at `copy` in the target, to the target's
/// chain. The records keep their distances from each other. The chain goes on at the copy of the
/// source's first committed record, not at the copy's first byte: the first reservation may be a
/// key path, an abandoned record, or a record that was committed after others. A source with
/// nothing committed leaves the target's chain as it is.
void HandOver(EventBuffer& source, EventBuffer& target, UCHAR* copy, ULONG used) {
    {
        const QueuedSpinLockGuard guard(Pool.lock);
        target.reservationCount += source.reservationCount;
    }
    RtlCopyMemory(copy, source.base + sizeof(BufferHeader), used);
    LONG first = 0;
    LONG_PTR last = 0;
    {
        const QueuedSpinLockGuard guard(source.chainLock);
        first = reinterpret_cast<const BufferHeader*>(source.base)->NextOffset;
        last = source.last - source.base;
    }
    if (first == 0) {
        return;
    }
    UCHAR* const origin = copy - sizeof(BufferHeader);
    const QueuedSpinLockGuard guard(target.chainLock);
    reinterpret_cast<BufferHeader*>(target.last)->NextOffset =
        static_cast<LONG>(origin + first - target.last);
    target.last = origin + last;
}

void MoveTo(LIST_ENTRY& list, EventBuffer& buffer) {
    const QueuedSpinLockGuard guard(Pool.lock);
    RemoveEntryList(&buffer.links);
    InsertTailList(&list, &buffer.links);
}

void ReturnDescriptors(LIST_ENTRY& list) {
    while (!IsListEmpty(&list)) {
        FreeDescriptor(CONTAINING_RECORD(RemoveHeadList(&list), EventBuffer, links));
    }
}

}  // namespace

void MemInitialize() {
    Pool = {};
    InitializeListHead(&Pool.ActiveList);
    InitializeListHead(&Pool.SealedList);
    InitializeListHead(&Pool.PendingList);
    InitializeListHead(&Pool.FinishingList);
    InitializeListHead(&Pool.DumpList);
    KeInitializeSpinLock(&Pool.lock);
    KeInitializeEvent(&Pool.dumpFileIdle, SynchronizationEvent, TRUE);
    ExInitializeNPagedLookasideList(&Pool.descriptors, nullptr, nullptr,
                                    static_cast<ULONG>(NonPagedPoolType), sizeof(EventBuffer),
                                    kDescriptorTag, 0);
    SetPhase(PoolPhase::kBoot);
    Pool.bootMemory = static_cast<UCHAR*>(ExAllocatePoolWithTag(
        NonPagedPoolType, kBootBufferCount * kBootBufferSize, kBootMemoryTag));
    if (Pool.bootMemory == nullptr) {
        ZPRF_TRACE(TRACE_BUFFER, TRACE_LEVEL_WARNING, "no memory for boot buffers");
        return;
    }
    for (SIZE_T i = 0; i < kBootBufferCount; ++i) {
        const NTSTATUS status =
            MemAddBuffer(nullptr, Pool.bootMemory + i * kBootBufferSize, kBootBufferSize, nullptr);
        if (!NT_SUCCESS(status)) {
            return;
        }
    }
}

void MemUninitialize() {
    {
        const QueuedSpinLockGuard guard(Pool.lock);
        ReturnDescriptors(Pool.ActiveList);
        ReturnDescriptors(Pool.SealedList);
        ReturnDescriptors(Pool.PendingList);
        ReturnDescriptors(Pool.FinishingList);
    }
    ExDeleteNPagedLookasideList(&Pool.descriptors);
    if (Pool.bootMemory != nullptr) {
        ExFreePoolWithTag(Pool.bootMemory, kBootMemoryTag);
        Pool.bootMemory = nullptr;
    }
    if (Pool.dumpFile != nullptr) {
        ZwClose(Pool.dumpFile);
        Pool.dumpFile = nullptr;
    }
}

NTSTATUS MemAddBuffer(WDFREQUEST request, PVOID base, size_t length, EventBuffer** parking) {
    if (request == nullptr && base == nullptr) {
        ZPRF_TRACE(TRACE_BUFFER, TRACE_LEVEL_WARNING, "buffer without memory refused");
        return STATUS_INVALID_PARAMETER;
    }
    if (request != nullptr) {
        NoteClientRequest();
        if (!LocateRequestBuffer(request, &base, &length)) {
            ZPRF_TRACE(TRACE_BUFFER, TRACE_LEVEL_WARNING, "request %p without a buffer refused",
                       request);
            return STATUS_INVALID_PARAMETER;
        }
    }
    if (length < kMinimumBufferSize) {
        ZPRF_TRACE(TRACE_BUFFER, TRACE_LEVEL_WARNING, "buffer of %llu bytes refused", length);
        return STATUS_INVALID_PARAMETER;
    }
    auto* buffer = static_cast<EventBuffer*>(ExAllocateFromNPagedLookasideList(&Pool.descriptors));
    if (buffer == nullptr) {
        ZPRF_TRACE(TRACE_BUFFER, TRACE_LEVEL_WARNING, "no memory for a buffer descriptor");
        return STATUS_NO_MEMORY;
    }
    InitializeDescriptor(*buffer, request, static_cast<UCHAR*>(base), length);
    if (request == nullptr) {
        EnterBootBuffer(*buffer);
        return STATUS_SUCCESS;
    }
    InterlockedIncrement(&buffer->refCount);
    *parking = buffer;
    ZPRF_TRACE(TRACE_BUFFER, TRACE_LEVEL_INFORMATION, "client buffer %p added, sequence %u", base,
               buffer->sequence);
    EventBuffer* pending = EnterClientBuffer(*buffer);
    if (pending != nullptr) {
        MemRecycle(pending);
    }
    return STATUS_SUCCESS;
}

PVOID MemReserve(ULONG* size, EventBuffer** buffer, ULONG* sequence, ULONG flags) {
    // A size within 7 of the 32-bit limit must not become a small one by rounding.
    const ULONG64 rounded = (ULONG64{*size} + 7) & ~ULONG64{7};
    *size = static_cast<ULONG>(rounded);
    for (;;) {
        const Reservation reservation = LookForSpace(rounded, sequence, flags);
        if (reservation.outcome == Outcome::kSealed) {
            ZPRF_TRACE(TRACE_BUFFER, TRACE_LEVEL_INFORMATION, "buffer %p sealed",
                       reservation.buffer);
            MemRelease(reservation.buffer);
            continue;
        }
        if (reservation.outcome == Outcome::kNoSpace) {
            ZPRF_TRACE(TRACE_BUFFER, TRACE_LEVEL_WARNING, "no space for %u bytes", *size);
        }
        *buffer = reservation.buffer;
        return reservation.space;
    }
}

void MemCommit(EventBuffer* buffer, PVOID record) {
    auto* const address = static_cast<UCHAR*>(record);
    const QueuedSpinLockGuard guard(buffer->chainLock);
    // The header and every record have their link at the same place.
    reinterpret_cast<BufferHeader*>(buffer->last)->NextOffset =
        static_cast<LONG>(address - buffer->last);
    buffer->last = address;
}

void MemRelease(EventBuffer* buffer) {
    if (InterlockedDecrement(&buffer->refCount) == 0) {
        MemFinish(buffer);
    }
}

void MemFlush() {
    for (int pass = 0; pass < 2; ++pass) {
        EventBuffer* buffer = nullptr;
        bool boot = false;
        {
            const QueuedSpinLockGuard guard(Pool.lock);
            if (IsListEmpty(&Pool.ActiveList)) {
                return;
            }
            PLIST_ENTRY entry = RemoveHeadList(&Pool.ActiveList);
            InsertTailList(&Pool.SealedList, entry);
            buffer = CONTAINING_RECORD(entry, EventBuffer, links);
            boot = buffer->request == nullptr;
        }
        ZPRF_TRACE(TRACE_BUFFER, TRACE_LEVEL_INFORMATION, "buffer %p flushed", buffer);
        MemRelease(buffer);
        if (!boot) {
            return;
        }
    }
}

void MemRecycle(EventBuffer* buffer) {
    ULONG used = UsedBytes(*buffer);
    if (used != 0) {
        EventBuffer* target = nullptr;
        ULONG sequence = 0;
        auto* const copy =
            static_cast<UCHAR*>(MemReserve(&used, &target, &sequence, MEM_RESERVE_CLIENT_BUFFER));
        if (target == nullptr) {
            ZPRF_TRACE(TRACE_BUFFER, TRACE_LEVEL_INFORMATION, "boot buffer %p pending", buffer);
            MoveTo(Pool.PendingList, *buffer);
            return;
        }
        HandOver(*buffer, *target, copy, used);
        MemRelease(target);
    }
    StartFilling(*buffer);
    ZPRF_TRACE(TRACE_BUFFER, TRACE_LEVEL_INFORMATION, "boot buffer %p reset, sequence %u", buffer,
               buffer->sequence);
    MoveTo(Pool.ActiveList, *buffer);
}

}  // namespace zpregflt
