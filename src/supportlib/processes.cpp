#include "supportlib/processes.h"

#include "supportlib/driver_entry.h"
#include "supportlib/folded_text.h"
#include "supportlib/pool_memory.h"
#include "supportlib/process_contexts.h"
#include "supportlib/read_section.h"
#include "supportlib/trusted_images.h"

namespace zpklib {

constinit ProcessTable processTable = {};

namespace {

constexpr ULONG_PTR kSystemProcessId = 4;
/// Tombstones that the end of a process looks at; more than it adds.
constexpr int kSweepStep = 2;

void Release(Process* process) {
    if (InterlockedDecrement(&process->References) == 0) {
        ExFreePoolWithTag(process, kProcessTag);
    }
}

/// For a record that has left the table.
void DropUnlinked(Process* process, ProcessContext* contexts) {
    WaitForReaders();
    ReleaseDetached(contexts);
    Release(process);
}

/// The image path of a process object, for the object's lifetime.
class ImageName {
public:
    NTSTATUS Locate(PEPROCESS process) { return SeLocateProcessImageName(process, &name_); }
    ~ImageName() {
        if (name_ != nullptr) {
            ExFreePool(name_);
        }
    }
    ImageName() = default;
    ImageName(const ImageName&) = delete;
    ImageName& operator=(const ImageName&) = delete;

    const UNICODE_STRING& Text() const { return *name_; }

private:
    PUNICODE_STRING name_ = nullptr;
};

/// Copies the text to `room` and returns the byte behind the copy.
UCHAR* CopyText(const UNICODE_STRING& text, UCHAR* room, UNICODE_STRING* copy) {
    if (text.Length != 0) {
        RtlCopyMemory(room, text.Buffer, text.Length);
    }
    *copy = {text.Length, text.Length, reinterpret_cast<PWSTR>(room)};
    return room + text.Length;
}

}  // namespace

void ProcessReference::Adopt(Process* process) {
    Reset();
    process_ = process;
}

void ProcessReference::Reset() {
    if (process_ != nullptr) {
        Release(Detach());
    }
}

Process* ProcessReference::Detach() {
    Process* process = process_;
    process_ = nullptr;
    return process;
}

void ProcessTable::Initialize() {
    mutex_.Initialize();
    InitializeListHead(&exited_);
    // Keys count on from the time at which the library started. The count never catches up with the
    // clock, so a library that is started again in the same boot gives out new keys.
    LARGE_INTEGER now;
    KeQuerySystemTime(&now);
    lastKey_ = now.QuadPart;
}

void ProcessTable::Destroy() {
    for (PVOID volatile& bucket : buckets_) {
        while (bucket != nullptr) {
            auto* process = static_cast<Process*>(bucket);
            bucket = process->NextInBucket;
            // Nobody calls the library any more, so there is no reader to wait for.
            ReleaseDetached(DetachContexts(process));
            Release(process);
        }
    }
}

bool ProcessTable::FindLive(HANDLE id, ProcessReference& process) {
    ReadSection section;
    Process* found = Find(id);
    if (found == nullptr || ReadAcquire(&found->Exited) != 0) {
        return false;
    }
    InterlockedIncrement(&found->References);
    process.Adopt(found);
    return true;
}

NTSTATUS ProcessTable::Get(HANDLE id, ProcessReference& process) {
    return FindLive(id, process) ? STATUS_SUCCESS : GetLazily(id, process);
}

void ProcessTable::OnCreate(PEPROCESS process, HANDLE id, HANDLE creator) {
    ProcessReference made;
    ProcessReference entered;
    if (!NT_SUCCESS(Make(process, id, creator, made))) {
        // The first request tries again; the mark of an earlier process must not stop it.
        RemoveTombstone(id, nullptr);
        return;
    }
    Enter(made, true, entered);
}

void ProcessTable::OnExit(PEPROCESS process, HANDLE id) {
    ProcessReference ending;
    if (!FindLive(id, ending)) {
        ProcessReference made;
        if (NT_SUCCESS(Make(process, id, nullptr, made))) {
            Enter(made, false, ending);
        }
    }
    if (ending.Get() != nullptr) {
        ProcessContext* contexts = nullptr;
        {
            MutexGuard guard(mutex_);
            WriteRelease(&ending->Exited, 1);
            InsertTailList(&exited_, &ending->ExitedProcesses);
            contexts = DetachContexts(ending.Get());
        }
        if (contexts != nullptr) {
            WaitForReaders();
            ReleaseDetached(contexts);
        }
    }
    SweepTombstones();
}

/// Makes a record of a process that the table does not know.
NTSTATUS ProcessTable::GetLazily(HANDLE id, ProcessReference& process) {
    InterlockedIncrement(&makingLazily_);
    PEPROCESS object = nullptr;
    NTSTATUS status = PsLookupProcessByProcessId(id, &object);
    if (NT_SUCCESS(status)) {
        ProcessReference made;
        status = Make(object, id, nullptr, made);
        if (NT_SUCCESS(status)) {
            status = Enter(made, false, process);
        }
        ObfDereferenceObject(object);
    } else if (status == STATUS_INVALID_PARAMETER) {
        status = STATUS_INVALID_CID;  // what the lookup says of an id that names no process
    }
    InterlockedDecrement(&makingLazily_);
    return status;
}

/// Makes a record that is in no table yet. A null creator is not known.
NTSTATUS ProcessTable::Make(PEPROCESS object, HANDLE id, HANDLE creator, ProcessReference& made) {
    const auto number = reinterpret_cast<ULONG_PTR>(id);
    ImageName image;
    UNICODE_STRING path = LiteralString(L"System");  // it runs no image
    if (number != kSystemProcessId) {
        const NTSTATUS status = image.Locate(object);
        if (!NT_SUCCESS(status)) {
            return status;
        }
        path = image.Text();
    }
    ProcessReference creatorProcess;
    UNICODE_STRING creatorImage = {};
    if (creator != nullptr && NT_SUCCESS(Get(creator, creatorProcess))) {
        creatorImage = creatorProcess->Record.ImagePath;
    }
    auto* process = AllocateZeroed<Process>(nonPagedPool, kProcessTag,
                                            SIZE_T{path.Length} + creatorImage.Length);
    if (process == nullptr) {
        return STATUS_INSUFFICIENT_RESOURCES;
    }
    UCHAR* room = CopyText(path, reinterpret_cast<UCHAR*>(process + 1), &process->Record.ImagePath);
    CopyText(creatorImage, room, &process->CreatorImage);
    process->Record.ProcessId = number;
    process->Record.ProcessKey = static_cast<ULONG64>(InterlockedIncrement64(&lastKey_));
    if (number == kSystemProcessId || IsTrustedImage(View(path))) {
        process->Record.Flags = PROCESS_TRUSTED;
    }
    process->CreateTime = PsGetProcessCreateTimeQuadPart(object);
    process->References = 1;
    made.Adopt(process);
    return STATUS_SUCCESS;
}

/// Puts the record into the table, unless the process has one there; `entered` is the process's.
/// `created`: the process begins now, so that a tombstone of its id is another one's.
NTSTATUS ProcessTable::Enter(ProcessReference& made, bool created, ProcessReference& entered) {
    Process* replaced = nullptr;
    ProcessContext* contexts = nullptr;
    {
        MutexGuard guard(mutex_);
        Process* known = Find(made->Id());
        if (known != nullptr) {
            const bool same = known->CreateTime == made->CreateTime;
            if (same && known->Exited == 0) {
                InterlockedIncrement(&known->References);
                entered.Adopt(known);
                return STATUS_SUCCESS;
            }
            if (same && !created) {
                return STATUS_INVALID_CID;
            }
            replaced = known;
            contexts = DetachContexts(known);
            Unlink(known);
        }
        Link(made.Get());
        entered.Adopt(made.Detach());
    }
    if (replaced != nullptr) {
        DropUnlinked(replaced, contexts);
    }
    return STATUS_SUCCESS;
}

/// Removes the id's tombstone; `only` that one unless it is null.
void ProcessTable::RemoveTombstone(HANDLE id, const Process* only) {
    Process* known = nullptr;
    {
        MutexGuard guard(mutex_);
        known = Find(id);
        if (known == nullptr || known->Exited == 0 || (only != nullptr && known != only)) {
            return;
        }
        Unlink(known);
    }
    DropUnlinked(known, nullptr);
}

void ProcessTable::SweepTombstones() {
    for (int i = 0; i < kSweepStep; ++i) {
        ProcessReference oldest;
        {
            MutexGuard guard(mutex_);
            if (IsListEmpty(&exited_)) {
                return;
            }
            auto* first = CONTAINING_RECORD(RemoveHeadList(&exited_), Process, ExitedProcesses);
            InsertTailList(&exited_, &first->ExitedProcesses);
            InterlockedIncrement(&first->References);
            oldest.Adopt(first);
        }
        PEPROCESS object = nullptr;
        if (NT_SUCCESS(PsLookupProcessByProcessId(oldest->Id(), &object))) {
            const bool same = PsGetProcessCreateTimeQuadPart(object) == oldest->CreateTime;
            ObfDereferenceObject(object);
            if (same) {
                continue;
            }
        }
        // From here on no request can begin that finds the process. One that found it before is
        // counted until it has met the tombstone.
        if (ReadAcquire(&makingLazily_) == 0) {
            RemoveTombstone(oldest->Id(), oldest.Get());
        }
    }
}

PVOID volatile* ProcessTable::BucketOf(HANDLE id) {
    return &buckets_[reinterpret_cast<ULONG_PTR>(id) / 4 % kBuckets];  // ids are multiples of 4
}

/// Under the mutex or in a read section.
Process* ProcessTable::Find(HANDLE id) {
    auto* process = static_cast<Process*>(ReadPointerAcquire(BucketOf(id)));
    while (process != nullptr && process->Id() != id) {
        process = static_cast<Process*>(ReadPointerAcquire(&process->NextInBucket));
    }
    return process;
}

/// The table takes a reference of its own.
void ProcessTable::Link(Process* process) {
    InterlockedIncrement(&process->References);
    PVOID volatile* bucket = BucketOf(process->Id());
    process->NextInBucket = ReadPointerNoFence(bucket);
    WritePointerRelease(bucket, process);
}

/// The caller drops the table's reference after a wait for readers.
void ProcessTable::Unlink(Process* process) {
    PVOID volatile* link = BucketOf(process->Id());
    while (ReadPointerNoFence(link) != process) {
        link = &static_cast<Process*>(ReadPointerNoFence(link))->NextInBucket;
    }
    WritePointerRelease(link, ReadPointerNoFence(&process->NextInBucket));
    if (process->Exited != 0) {
        RemoveEntryList(&process->ExitedProcesses);
    }
}

}  // namespace zpklib

extern "C" {

NTSTATUS NTAPI ZPkPsGet(ZPK_PROCESS_TRACKING* tracking, HANDLE processId, ProcessRecord** record,
                        PVOID* context) {
    *record = nullptr;
    if (context != nullptr) {
        *context = nullptr;
    }
    zpklib::ProcessReference process;
    const NTSTATUS status = zpklib::processTable.Get(processId, process);
    if (!NT_SUCCESS(status)) {
        return status;
    }
    if (context != nullptr) {
        *context = zpklib::ReferencedContext(process.Get(), tracking);
    }
    *record = &process.Detach()->Record;
    return STATUS_SUCCESS;
}

void NTAPI ZPkPsRelease(ProcessRecord* record) {
    zpklib::ProcessReference process;
    process.Adopt(reinterpret_cast<zpklib::Process*>(record));
}

}  // extern "C"
