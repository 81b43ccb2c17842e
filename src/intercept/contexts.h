// What the handlers know about a key object, its key and its process.
#pragma once

#include <ntifs.h>

#include "records/record_format.h"
#include "supportlib/zpklib.h"

namespace zpregflt {

struct ValueCache;

/// One for each node of the key-name tree that has been given one; shared by all key objects on
/// that path. The support library allocates and frees the block.
struct KeyEntry {
    KGUARDED_MUTEX EntryLock;  ///< held to change the two fields below
    /// The key's path as last written into an event buffer, or null.
    PVOID volatile CachedName;
    /// Sequence of the buffer that holds it: the path may be referred to only from records in a
    /// buffer that still carries this number.
    volatile LONG CachedNameSequence;
    /// Drawn when the entry is made and never changed: tells keys apart whose nodes have come to
    /// lie at one address. 0: none could be drawn.
    ULONG Identity;

    /// The path, if it lies in the buffer with this sequence, whose memory goes from `start` to
    /// `end` and on which the caller holds a reservation; else null. With or without the lock: most
    /// records find their key's path already written, and need not wait for each other to see that.
    const WCHAR* NameIn(ULONG sequence, const void* start, const void* end) const {
        if (static_cast<ULONG>(ReadAcquire(&CachedNameSequence)) != sequence) {
            return nullptr;
        }
        // A name is stored before its sequence: this one was stored with that sequence or later.
        // While the reservation is held, the memory belongs to no other sequence, so that a later
        // name which lies in it is this buffer's too.
        const void* const name = ReadPointerNoFence(&CachedName);
        return name >= start && name < end ? static_cast<const WCHAR*>(name) : nullptr;
    }
    /// EntryLock is held.
    void SetName(PVOID name, ULONG sequence) {
        WritePointerRelease(&CachedName, name);
        WriteRelease(&CachedNameSequence, static_cast<LONG>(sequence));
    }
    /// EntryLock is held.
    void ForgetName() { WritePointerRelease(&CachedName, nullptr); }
};
static_assert(sizeof(KeyEntry) == 72);

/// What an exemption check found, valid for one generation of the exemption list. One word, so that
/// a result and its generation are read and replaced together.
union ExemptionVerdict {
    struct {
        ULONG CheckedGeneration;
        ULONG ExemptState;  ///< EXEMPT_ bits
    } s;
    LONG64 Word;
};
inline constexpr ULONG EXEMPT_CHECKED = 0x1;
inline constexpr ULONG EXEMPT_YES = 0x2;

/// One for each process that has opened a key; held by the support library until the process ends
/// and by every key object context of the process.
struct ProcessContext {
    volatile LONG64 Exemption;  ///< ExemptionVerdict; changed by interlocked operations
    /// Operations recorded for this process; set once, read without a lock.
    OperationMask Operations;
    PVOID volatile Cache;      ///< ValueCache, or null; once set it stays
    KGUARDED_MUTEX CacheLock;  ///< guards the creation of `Cache`

    ValueCache* ValueCachePointer() const {
        return static_cast<ValueCache*>(ReadPointerAcquire(&Cache));
    }
};
static_assert(sizeof(ProcessContext) == 80 && offsetof(ProcessContext, Operations) == 8);

/// One for each key object that a monitored process has created or opened, attached to it as the
/// registry callback's object context; from a paged lookaside list.
///
/// It holds one reference on each thing that it points to. Process, ProcessContext are set before
/// it is attached and never change. KeyNode and KeyEntry are null or set; filling them is described
/// with BindKeyEntry.
struct KeyObjectContext {
    /// Operations performed through this key object; interlocked once attached.
    volatile LONG KeyOperations;
    ProcessRecord* Process;
    zpregflt::ProcessContext* ProcessContext;
    PVOID volatile KeyNode;   ///< ZPK_NODE
    PVOID volatile KeyEntry;  ///< zpregflt::KeyEntry; only ever set while KeyNode is

    ZPK_NODE* Node() const { return static_cast<ZPK_NODE*>(ReadPointerAcquire(&KeyNode)); }
    zpregflt::KeyEntry* Entry() const {
        return static_cast<zpregflt::KeyEntry*>(ReadPointerAcquire(&KeyEntry));
    }
};
static_assert(sizeof(KeyObjectContext) == 40);

}  // namespace zpregflt
