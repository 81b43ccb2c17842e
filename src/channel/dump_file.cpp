#include "channel/dump_file.h"

#include <lock_guards.h>

#include "channel/memory_internal.h"
#include "driver/driver_state.h"
#include "intercept/tracing.h"

namespace zpregflt {

/// Object context of a dump work item, which owns the copy.
struct ZPRF_MEM_WORKER_ITEM_CONTEXT {
    PVOID Buffer;  ///< nonpaged, tag kDumpImageTag
    ULONG64 Length;
};
WDF_DECLARE_CONTEXT_TYPE_WITH_NAME(ZPRF_MEM_WORKER_ITEM_CONTEXT, GetWorkItemContext)

namespace {

/// The dump file's lock: its holder writes at PASSIVE_LEVEL, so it cannot be a mutex that raises
/// the level. It is taken alone.
class [[nodiscard]] DumpFileGuard {
public:
    DumpFileGuard() {
        KeEnterCriticalRegion();
        KeWaitForSingleObject(&Pool.dumpFileIdle, 0, KernelMode, FALSE, nullptr);
    }
    ~DumpFileGuard() {
        KeSetEvent(&Pool.dumpFileIdle, 0, FALSE);
        KeLeaveCriticalRegion();
    }
    DumpFileGuard(const DumpFileGuard&) = delete;
    DumpFileGuard& operator=(const DumpFileGuard&) = delete;
};

NTSTATUS Append(const void* data, ULONG length) {
    IO_STATUS_BLOCK ioStatus = {};
    return ZwWriteFile(ReadPointerAcquire(&Pool.dumpFile), nullptr, nullptr, nullptr, &ioStatus,
                       const_cast<PVOID>(data), length, nullptr, nullptr);
}

/// Appends one block. Any status but STATUS_SUCCESS means that the block is not complete.
NTSTATUS MemWriteBlock(const void* data, ULONG length) {
    const DumpBlockHeader header = {kDumpBlockMagic, length};
    const DumpFileGuard guard;
    NTSTATUS status = Append(&header, sizeof(header));
    if (status == STATUS_SUCCESS) {
        status = Append(data, length);
    }
    if (status != STATUS_SUCCESS) {
        ZPRF_TRACE(TRACE_BUFFER, TRACE_LEVEL_VERBOSE, "dump write failed, status %x", status);
    }
    return status;
}

void NTAPI MemDumpWorkItem(WDFWORKITEM workItem) {
    const ZPRF_MEM_WORKER_ITEM_CONTEXT& context = *GetWorkItemContext(workItem);
    // A failed write is traced where it happens; there is nobody else to tell.
    static_cast<void>(MemWriteBlock(context.Buffer, static_cast<ULONG>(context.Length)));
    ExFreePoolWithTag(context.Buffer, kDumpImageTag);
    WdfObjectDelete(workItem);
}

NTSTATUS CreateDumpWorkItem(WDFWORKITEM* workItem) {
    WDF_WORKITEM_CONFIG config;
    WDF_WORKITEM_CONFIG_INIT(&config, MemDumpWorkItem);
    WDF_OBJECT_ATTRIBUTES attributes;
    WDF_OBJECT_ATTRIBUTES_INIT(&attributes);
    attributes.ParentObject = State.ControlDevice;
    attributes.ContextTypeInfo = &WDF_ZPRF_MEM_WORKER_ITEM_CONTEXT_TYPE_INFO;
    return WdfWorkItemCreate(&config, &attributes, workItem);
}

ULONG ImageLength(const EventBuffer& buffer) {
    return static_cast<ULONG>(buffer.fill - buffer.base);
}

NTSTATUS QueueImage(const EventBuffer& buffer) {
    WDFWORKITEM workItem = nullptr;
    const NTSTATUS status = CreateDumpWorkItem(&workItem);
    if (!NT_SUCCESS(status)) {
        return status;
    }
    ZPRF_MEM_WORKER_ITEM_CONTEXT& context = *GetWorkItemContext(workItem);
    context.Length = ImageLength(buffer);
    context.Buffer = ExAllocatePoolWithTag(NonPagedPoolType, context.Length, kDumpImageTag);
    if (context.Buffer == nullptr) {
        WdfObjectDelete(workItem);
        return STATUS_INSUFFICIENT_RESOURCES;
    }
    RtlCopyMemory(context.Buffer, buffer.base, context.Length);
    WdfWorkItemEnqueue(workItem);
    return STATUS_SUCCESS;
}

void MoveToDumpList(LIST_ENTRY& list) {
    while (!IsListEmpty(&list)) {
        PLIST_ENTRY entry = RemoveHeadList(&list);
        CONTAINING_RECORD(entry, EventBuffer, links)->home = &list;
        InsertTailList(&Pool.DumpList, entry);
    }
}

/// Has last releases wait from now on. False when another dump is at work.
bool BeginDump() {
    const QueuedSpinLockGuard guard(Pool.lock);
    if (Pool.dumping) {
        return false;
    }
    Pool.dumping = true;
    return true;
}

bool IsHandingOver() {
    const QueuedSpinLockGuard guard(Pool.lock);
    for (PLIST_ENTRY entry = Pool.FinishingList.Flink; entry != &Pool.FinishingList;
         entry = entry->Flink) {
        if (CONTAINING_RECORD(entry, EventBuffer, links)->request == nullptr) {
            return true;
        }
    }
    return false;
}

/// Takes every buffer out of the three lists, so that none is reserved in or sealed while its image
/// is written.
void DetachLists() {
    const QueuedSpinLockGuard guard(Pool.lock);
    MoveToDumpList(Pool.PendingList);
    MoveToDumpList(Pool.SealedList);
    MoveToDumpList(Pool.ActiveList);
}

/// Gives the lists their buffers back, in the order they were in and ahead of buffers that have
/// been added meanwhile; returns the last releases that have waited.
EventBuffer* ReattachLists() {
    const QueuedSpinLockGuard guard(Pool.lock);
    while (!IsListEmpty(&Pool.DumpList)) {
        PLIST_ENTRY entry = Pool.DumpList.Blink;
        RemoveEntryList(entry);
        InsertHeadList(CONTAINING_RECORD(entry, EventBuffer, links)->home, entry);
    }
    Pool.dumping = false;
    EventBuffer* deferred = Pool.deferredReleases;
    Pool.deferredReleases = nullptr;
    return deferred;
}

enum class Writers { kAtWork, kNone, kWithdrawn };

/// Both are looked at under the lock: a withdrawal marks the buffer sealed there before it drops
/// the base reference, so a buffer that counts as active still has it.
Writers LookForWriters(const EventBuffer& buffer) {
    const QueuedSpinLockGuard guard(Pool.lock);
    if (!buffer.live) {
        return Writers::kWithdrawn;
    }
    const LONG baseReferences = buffer.home == &Pool.ActiveList ? 1 : 0;
    return ReadAcquire(&buffer.refCount) <= baseReferences ? Writers::kNone : Writers::kAtWork;
}

/// Waits for what other threads are about to be done with: they wait for nothing that a dump holds.
/// One that does not end all the same (it was stopped for good) must not keep the system from
/// shutting down.
template <typename IsDone>
void AwaitOthers(IsDone isDone) {
    constexpr int kPatience = 1000;
    LARGE_INTEGER millisecond;
    millisecond.QuadPart = -10'000;
    for (int i = 0; i < kPatience && !isDone(); ++i) {
        KeDelayExecutionThread(KernelMode, FALSE, &millisecond);
    }
}

/// Waits until nobody writes to a detached buffer, so that its image holds whole records; new
/// writers cannot come. False: the buffer's request was withdrawn meanwhile; its image is written
/// when it is finished.
bool AwaitWriters(const EventBuffer& buffer) {
    Writers writers = Writers::kAtWork;
    AwaitOthers([&] { return (writers = LookForWriters(buffer)) != Writers::kAtWork; });
    return writers != Writers::kWithdrawn;
}

void WriteDetachedBuffers() {
    // Only this thread changes the links of a detached buffer.
    for (PLIST_ENTRY entry = Pool.DumpList.Flink; entry != &Pool.DumpList; entry = entry->Flink) {
        const EventBuffer& buffer = *CONTAINING_RECORD(entry, EventBuffer, links);
        if (AwaitWriters(buffer) &&
            MemWriteBlock(buffer.base, ImageLength(buffer)) != STATUS_SUCCESS) {
            return;
        }
    }
}

NTSTATUS RefuseSecondDumpFile() {
    ZPRF_TRACE(TRACE_BUFFER, TRACE_LEVEL_WARNING, "second dump file refused");
    return STATUS_OBJECT_NAME_COLLISION;
}

}  // namespace

NTSTATUS MemSetDumpFile(HANDLE handle) {
    if (ReadPointerAcquire(&Pool.dumpFile) != nullptr) {
        return RefuseSecondDumpFile();
    }
    PVOID file = nullptr;
    NTSTATUS status = ObReferenceObjectByHandle(handle, FILE_WRITE_DATA, *IoFileObjectType,
                                                UserMode, &file, nullptr);
    if (status != STATUS_SUCCESS) {
        ZPRF_TRACE(TRACE_BUFFER, TRACE_LEVEL_WARNING, "dump file refused, status %x", status);
        return STATUS_INVALID_PARAMETER;
    }
    HANDLE kernelHandle = nullptr;
    status = ObOpenObjectByPointer(file, OBJ_KERNEL_HANDLE, nullptr, FILE_WRITE_DATA,
                                   *IoFileObjectType, KernelMode, &kernelHandle);
    ObfDereferenceObject(file);
    if (!NT_SUCCESS(status)) {
        ZPRF_TRACE(TRACE_BUFFER, TRACE_LEVEL_WARNING, "dump file cannot be opened, status %x",
                   status);
        return status;
    }
    // Two requests at once: the first file stays.
    if (InterlockedCompareExchangePointer(&Pool.dumpFile, kernelHandle, nullptr) != nullptr) {
        ZwClose(kernelHandle);
        return RefuseSecondDumpFile();
    }
    return status;
}

NTSTATUS MemDumpBuffer(const EventBuffer& buffer) {
    if (ReadPointerAcquire(&Pool.dumpFile) == nullptr) {
        return STATUS_SUCCESS;
    }
    const NTSTATUS status = QueueImage(buffer);
    if (!NT_SUCCESS(status)) {
        ZPRF_TRACE(TRACE_BUFFER, TRACE_LEVEL_WARNING, "image of buffer %p lost, status %x", &buffer,
                   status);
    }
    return status;
}

void MemDump() {
    SetPhase(PoolPhase::kShutdown);
    if (ReadPointerAcquire(&Pool.dumpFile) == nullptr || !BeginDump()) {
        return;
    }
    // A boot buffer's records are then in a client buffer, or it is pending: nothing is left out.
    AwaitOthers([] { return !IsHandingOver(); });
    DetachLists();
    WriteDetachedBuffers();
    EventBuffer* deferred = ReattachLists();
    while (deferred != nullptr) {
        EventBuffer* next = deferred->nextDeferred;
        MemFinish(deferred);
        deferred = next;
    }
}

}  // namespace zpregflt
