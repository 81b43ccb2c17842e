// What the library knows of the processes of the system.
//
// A process gets its record from the notification of its creation or, when it is older than the
// library (or there was no memory at that time), from the first request for it.
//
// Invariants:
// - The table has at most one record of a process id. It is found without a lock, in a read
//   section, and changed under the mutex. A record that has left the table loses the table's
//   reference after a wait for readers, so whoever finds one may simply reference it.
// - No record outlives its process in the table unnoticed: the exit notification marks the record,
//   making one for that purpose if there is none yet, and a marked record is never handed out. It
//   stays in the table as a tombstone, so that a request that began before the exit, or that comes
//   while the process object is still held by somebody, finds the mark instead of making a new
//   record. A tombstone goes when its id is given to a new process or when the id names its process
//   no longer and no request is just making a record. Without memory for a tombstone a record can
//   be made for an ended process as long as its id can be looked up; it then goes when the id is
//   used again or the library unloads.
// - Process contexts are attached under the mutex and only to records that are not marked. They
//   come off when the process ends or their registration does, and lose the library's reference
//   after a wait for readers. A registration has not ended before all of its contexts have.
#pragma once

#include "supportlib/locks.h"
#include "supportlib/zpklib.h"

#include <ntifs.h>

namespace zpklib {

struct ProcessContext;

/// A record as the library sees it; one nonpaged block with its texts behind it.
struct Process {
    ProcessRecord Record;  ///< first: what clients hold is the address of it
    volatile LONG References;
    volatile LONG Exited;
    PVOID volatile NextInBucket;  ///< Process
    PVOID volatile FirstContext;  ///< ProcessContext
    LONGLONG CreateTime;          ///< with the id, tells which process object it is
    UNICODE_STRING CreatorImage;  ///< empty when it is not known
    LIST_ENTRY ExitedProcesses;   ///< linked when Exited

    HANDLE Id() const { return reinterpret_cast<HANDLE>(Record.ProcessId); }
};

/// Owns one reference on a record.
class ProcessReference {
public:
    ProcessReference() = default;
    ~ProcessReference() { Reset(); }
    ProcessReference(const ProcessReference&) = delete;
    ProcessReference& operator=(const ProcessReference&) = delete;

    /// Takes over a reference.
    void Adopt(Process* process);
    void Reset();
    /// Hands the reference over.
    Process* Detach();
    Process* operator->() const { return process_; }
    Process* Get() const { return process_; }

private:
    Process* process_ = nullptr;
};

/// PASSIVE_LEVEL, but where a member says otherwise.
class ProcessTable {
public:
    void Initialize();
    /// Drops every record; the notifications are off.
    void Destroy();

    /// STATUS_INVALID_CID: no such process, or it has ended.
    NTSTATUS Get(HANDLE id, ProcessReference& process);

    void OnCreate(PEPROCESS process, HANDLE id, HANDLE creator);
    void OnExit(PEPROCESS process, HANDLE id);

    GuardedMutex& Mutex() { return mutex_; }
    /// Calls `visit` with every record in the table; the mutex is held.
    template <typename Visit>
    void ForEach(Visit visit) {
        for (PVOID volatile& bucket : buckets_) {
            for (auto* each = static_cast<Process*>(bucket); each != nullptr;
                 each = static_cast<Process*>(each->NextInBucket)) {
                visit(each);
            }
        }
    }

private:
    static constexpr ULONG kBuckets = 512;

    PVOID volatile* BucketOf(HANDLE id);
    Process* Find(HANDLE id);
    bool FindLive(HANDLE id, ProcessReference& process);
    void Link(Process* process);
    void Unlink(Process* process);
    NTSTATUS GetLazily(HANDLE id, ProcessReference& process);
    NTSTATUS Make(PEPROCESS object, HANDLE id, HANDLE creator, ProcessReference& made);
    NTSTATUS Enter(ProcessReference& made, bool created, ProcessReference& entered);
    void RemoveTombstone(HANDLE id, const Process* only);
    void SweepTombstones();

    GuardedMutex mutex_;  // guards all changes
    PVOID volatile buckets_[kBuckets];
    LIST_ENTRY exited_;
    volatile LONG makingLazily_;  // requests that may enter a record of a process that ends now
    volatile LONG64 lastKey_;
};

extern ProcessTable processTable;

}  // namespace zpklib
