// The last release of a buffer, and the withdrawal of its request.
#include <lock_guards.h>

#include "channel/dump_file.h"
#include "channel/memory_internal.h"
#include "driver/driver_state.h"
#include "intercept/tracing.h"

namespace zpregflt {

namespace {

/// What a withdrawal has to do with the buffer after it has let go of the pool lock.
enum class Withdrawal {
    kUnknown,      ///< no buffer: complete the request
    kReleaseBase,  ///< drop the base reference, which sealing has not done
    kLeft,         ///< the last release will see to it
    kFinish,       ///< the last release has been there: finish and free
};

EventBuffer* FindByRequest(LIST_ENTRY& list, WDFREQUEST request) {
    for (PLIST_ENTRY entry = list.Flink; entry != &list; entry = entry->Flink) {
        EventBuffer* buffer = CONTAINING_RECORD(entry, EventBuffer, links);
        if (buffer->request == request) {
            return buffer;
        }
    }
    return nullptr;
}

void MarkWithdrawn(EventBuffer& buffer, NTSTATUS status) {
    buffer.live = 0;
    buffer.withdrawStatus = status;
}

/// The decision; the pool lock is held. Every list is searched, since the buffer may be anywhere
/// between its lending and its delivery, also in the hands of a dump.
Withdrawal Withdraw(WDFREQUEST request, NTSTATUS status, EventBuffer*& buffer) {
    if ((buffer = FindByRequest(Pool.ActiveList, request)) != nullptr) {
        MarkWithdrawn(*buffer, status);
        RemoveEntryList(&buffer->links);
        InsertTailList(&Pool.SealedList, &buffer->links);
        return Withdrawal::kReleaseBase;
    }
    if ((buffer = FindByRequest(Pool.SealedList, request)) != nullptr) {
        MarkWithdrawn(*buffer, status);
        return Withdrawal::kLeft;
    }
    if ((buffer = FindByRequest(Pool.DumpList, request)) != nullptr) {
        MarkWithdrawn(*buffer, status);
        if (buffer->home != &Pool.ActiveList) {
            return Withdrawal::kLeft;
        }
        buffer->home = &Pool.SealedList;
        return Withdrawal::kReleaseBase;
    }
    if ((buffer = FindByRequest(Pool.FinishingList, request)) != nullptr) {
        MarkWithdrawn(*buffer, status);
        if (!buffer->orphaned) {
            return Withdrawal::kLeft;
        }
        RemoveEntryList(&buffer->links);
        return Withdrawal::kFinish;
    }
    return Withdrawal::kUnknown;
}

/// What the last release finds.
enum class Ending { kDeferred, kHandOver, kWithdrawn, kDeliver };

Ending BeginFinish(EventBuffer& buffer) {
    const QueuedSpinLockGuard guard(Pool.lock);
    if (Pool.dumping) {
        buffer.nextDeferred = Pool.deferredReleases;
        Pool.deferredReleases = &buffer;
        return Ending::kDeferred;
    }
    RemoveEntryList(&buffer.links);
    if (!buffer.live) {
        return Ending::kWithdrawn;
    }
    InsertTailList(&Pool.FinishingList, &buffer.links);
    return buffer.request == nullptr ? Ending::kHandOver : Ending::kDeliver;
}

void FinishWithdrawn(EventBuffer* buffer) {
    if (buffer->reservationCount != 0) {
        MemDumpBuffer(*buffer);
    }
    const WDFREQUEST request = buffer->request;
    const NTSTATUS status = buffer->withdrawStatus;
    FreeDescriptor(buffer);
    WdfRequestComplete(request, status);
}

/// Looks for the request in the queue and takes it out; null when it is no longer there.
WDFREQUEST TakeRequest(WDFREQUEST wanted) {
    WDFREQUEST previous = nullptr;
    for (;;) {
        WDFREQUEST found = nullptr;
        NTSTATUS status =
            WdfIoQueueFindRequest(State.BufferQueue, previous, nullptr, nullptr, &found);
        if (previous != nullptr) {
            WdfObjectDereference(previous);
            previous = nullptr;
        }
        if (status == STATUS_NOT_FOUND) {
            continue;  // the request that the walk stood on has left the queue: start again
        }
        if (status == STATUS_NO_MORE_ENTRIES) {
            ZPRF_TRACE(TRACE_BUFFER, TRACE_LEVEL_ERROR, "request %p has left the queue", wanted);
            return nullptr;
        }
        if (!NT_SUCCESS(status)) {
            ZPRF_TRACE(TRACE_BUFFER, TRACE_LEVEL_WARNING, "queue walk failed, status %x", status);
            return nullptr;
        }
        if (found != wanted) {
            previous = found;
            continue;
        }
        WDFREQUEST request = nullptr;
        status = WdfIoQueueRetrieveFoundRequest(State.BufferQueue, found, &request);
        WdfObjectDereference(found);
        if (!NT_SUCCESS(status)) {
            ZPRF_TRACE(TRACE_BUFFER, TRACE_LEVEL_WARNING, "request %p cannot be taken, status %x",
                       wanted, status);
            return nullptr;
        }
        return request;
    }
}

void Unlink(EventBuffer& buffer) {
    const QueuedSpinLockGuard guard(Pool.lock);
    RemoveEntryList(&buffer.links);
}

/// The request is ours alone: it has left the queue, so that no cancellation can come.
void Deliver(EventBuffer* buffer, WDFREQUEST request) {
    const ULONG reservations = buffer->reservationCount;
    ZPRF_TRACE(TRACE_BUFFER, TRACE_LEVEL_INFORMATION, "buffer %p delivered, %u reservations",
               buffer, reservations);
    Unlink(*buffer);
    FreeDescriptor(buffer);
    WdfRequestSetInformation(request, reservations);
    WdfRequestComplete(request, STATUS_SUCCESS);
}

/// Unless the cancel callback has been there, the buffer is left to it.
bool LeaveToCancellation(EventBuffer& buffer) {
    const QueuedSpinLockGuard guard(Pool.lock);
    if (buffer.live) {
        buffer.orphaned = true;
        return true;
    }
    RemoveEntryList(&buffer.links);
    return false;
}

void FinishDelivery(EventBuffer* buffer) {
    const WDFREQUEST request = TakeRequest(buffer->request);
    if (request != nullptr) {
        Deliver(buffer, request);
    } else if (!LeaveToCancellation(*buffer)) {
        FinishWithdrawn(buffer);
    }
}

}  // namespace

void MemFinish(EventBuffer* buffer) {
    switch (BeginFinish(*buffer)) {
        case Ending::kDeferred:
            return;
        case Ending::kHandOver:
            MemRecycle(buffer);
            return;
        case Ending::kWithdrawn:
            FinishWithdrawn(buffer);
            return;
        case Ending::kDeliver:
            FinishDelivery(buffer);
            return;
    }
}

void MemCancelBuffer(WDFREQUEST request, NTSTATUS status) {
    SetPhase(PoolPhase::kShutdown);
    EventBuffer* buffer = nullptr;
    Withdrawal withdrawal = Withdrawal::kUnknown;
    {
        const QueuedSpinLockGuard guard(Pool.lock);
        withdrawal = Withdraw(request, status, buffer);
    }
    ZPRF_TRACE(TRACE_BUFFER, TRACE_LEVEL_INFORMATION, "request %p withdrawn, status %x", request,
               status);
    switch (withdrawal) {
        case Withdrawal::kUnknown:
            ZPRF_TRACE(TRACE_BUFFER, TRACE_LEVEL_WARNING, "no buffer of request %p", request);
            WdfRequestComplete(request, status);
            return;
        case Withdrawal::kReleaseBase:
            MemRelease(buffer);
            return;
        case Withdrawal::kLeft:
            return;
        case Withdrawal::kFinish:
            FinishWithdrawn(buffer);
            return;
    }
}

}  // namespace zpregflt
