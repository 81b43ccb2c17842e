// Writing one event record, from its reservation to its release.
//
// A recorder says its type, its size and its fields:
//
//     const RecordWriter<RecordHeader> record(RecordType::kKeyFlushed, object, context, bit);
//     return static_cast<bool>(record);
//
// Nothing is allocated: the record and the key's path lie in the event buffer.
#pragma once

#include <ntifs.h>

#include "channel/memory.h"
#include "intercept/contexts.h"
#include "records/record_format.h"

namespace zpregflt {

/// The procedure without the record's type. Lock order: the key entry's EntryLock, then the pool's.
class RecordReservation {
public:
    RecordReservation(const RecordReservation&) = delete;
    RecordReservation& operator=(const RecordReservation&) = delete;

    /// Whether there is a record. Without one a trace has told that there was no space.
    explicit operator bool() const { return header_ != nullptr; }

protected:
    /// Reserves `size` bytes, refers to the key's path, commits the record and fills its header.
    /// The path is that of the key's entry; a key without an entry is named by `capturedPath` if
    /// there is one. `traceBit` narrows the trace of a failure.
    RecordReservation(RecordType type, ULONG size, PVOID keyObject, const KeyObjectContext& context,
                      OperationMask traceBit, const UNICODE_STRING* capturedPath);
    /// Releases the record: its buffer may be delivered from here on.
    ~RecordReservation();

    RecordHeader* header_ = nullptr;

private:
    bool ReserveAndName(ULONG size, const KeyObjectContext& context,
                        const UNICODE_STRING* capturedPath);
    const WCHAR* PathHere(const KeyEntry& entry) const;
    bool WriteEntryPathOnce(KeyEntry& entry, ZPK_NODE* node);
    bool WriteEntryPath(KeyEntry& entry, ZPK_NODE* node, ULONG pathBytes);
    bool WriteCapturedPath(const UNICODE_STRING& path);
    template <typename Fill>
    bool WritePath(ULONG bytes, Fill fill);
    PVOID PlacePath(ULONG bytes, EventBuffer** pathBuffer);
    void SetName(const void* path) const;
    void FillHeader(RecordType type, const KeyObjectContext& context) const;

    EventBuffer* buffer_ = nullptr;
    ULONG size_ = 0;  ///< as reserved
    ULONG sequence_ = 0;
};

/// A record whose fixed part is a Record, which begins with a RecordHeader.
template <typename Record>
class RecordWriter : public RecordReservation {
public:
    /// `size` counts the fixed part and what follows it inline.
    RecordWriter(RecordType type, PVOID keyObject, const KeyObjectContext& context,
                 OperationMask traceBit, ULONG size = sizeof(Record),
                 const UNICODE_STRING* capturedPath = nullptr)
        : RecordReservation(type, size, keyObject, context, traceBit, capturedPath) {}

    Record* operator->() const { return reinterpret_cast<Record*>(header_); }
    /// The byte at `offset` from the record's first.
    UCHAR* At(ULONG offset) const { return reinterpret_cast<UCHAR*>(header_) + offset; }
};

}  // namespace zpregflt
