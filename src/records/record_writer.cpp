#include "records/record_writer.h"

#include <lock_guards.h>

#include "driver/driver_state.h"
#include "intercept/tracing.h"
#include "records/record_size.h"

namespace zpregflt {

namespace {

/// Bytes of the node's path; 0 when it cannot be had.
ULONG PathBytes(ZPK_NODE* node) {
    UNICODE_STRING name = {};
    if (ZPkDtGetName(State.KeyTree, node, &name) != STATUS_BUFFER_TOO_SMALL) {
        return 0;
    }
    return name.MaximumLength;
}

/// Writes the node's path and its terminator to `space`, which has room for `bytes` and a
/// terminator. The tree gives no more than it has room for.
bool CopyPath(ZPK_NODE* node, PVOID space, ULONG bytes) {
    UNICODE_STRING name = {0, static_cast<USHORT>(bytes), static_cast<PWSTR>(space)};
    if (ZPkDtGetName(State.KeyTree, node, &name) != STATUS_SUCCESS) {
        return false;
    }
    name.Buffer[name.Length / sizeof(WCHAR)] = 0;
    return true;
}

}  // namespace

RecordReservation::RecordReservation(RecordType type, ULONG size, PVOID keyObject,
                                     const KeyObjectContext& context, OperationMask traceBit,
                                     const UNICODE_STRING* capturedPath) {
    if (!ReserveAndName(size, context, capturedPath)) {
        header_ = nullptr;
        ZPRF_TRACE_FILTERED(TRACE_OPERATION, TRACE_LEVEL_WARNING, traceBit,
                            "process %p, key %p: no space for a record", PsGetCurrentProcessId(),
                            keyObject);
        return;
    }
    FillHeader(type, context);
    MemCommit(buffer_, header_);
}

RecordReservation::~RecordReservation() {
    if (header_ != nullptr) {
        MemRelease(buffer_);
    }
}

bool RecordReservation::ReserveAndName(ULONG size, const KeyObjectContext& context,
                                       const UNICODE_STRING* capturedPath) {
    size_ = size;
    header_ = static_cast<RecordHeader*>(MemReserve(&size_, &buffer_, &sequence_, 0));
    if (header_ == nullptr) {
        return false;
    }
    header_->NameOffset = 0;
    if (KeyEntry* entry = context.Entry(); entry != nullptr) {
        if (const WCHAR* path = PathHere(*entry); path != nullptr) {
            SetName(path);
            return true;
        }
        return WriteEntryPathOnce(*entry, context.Node());
    }
    return capturedPath == nullptr || WriteCapturedPath(*capturedPath);
}

/// The key's path, if it has been written into the record's buffer.
const WCHAR* RecordReservation::PathHere(const KeyEntry& entry) const {
    return entry.NameIn(sequence_, buffer_->base, buffer_->base + buffer_->capacity);
}

/// The lock is held to the end, so that two records about one key in one buffer never both write
/// its path.
bool RecordReservation::WriteEntryPathOnce(KeyEntry& entry, ZPK_NODE* node) {
    const GuardedMutexGuard guard(entry.EntryLock);
    if (const WCHAR* path = PathHere(entry); path != nullptr) {
        SetName(path);
        return true;
    }
    const ULONG bytes = PathBytes(node);
    return bytes == 0 || WriteEntryPath(entry, node, bytes);
}

bool RecordReservation::WriteEntryPath(KeyEntry& entry, ZPK_NODE* node, ULONG pathBytes) {
    return WritePath(pathBytes, [&](UCHAR* space) {
        if (!CopyPath(node, space, pathBytes)) {
            return false;
        }
        entry.SetName(space, sequence_);
        return true;
    });
}

bool RecordReservation::WriteCapturedPath(const UNICODE_STRING& path) {
    return WritePath(path.Length, [&](UCHAR* space) {
        RtlCopyMemory(space, path.Buffer, path.Length);
        *reinterpret_cast<WCHAR*>(space + path.Length) = 0;
        return true;
    });
}

/// Has `fill` write a path of so many bytes and its terminator into the record's buffer, and refers
/// to it unless that fails. False: there is no space for it, and no record any more.
template <typename Fill>
bool RecordReservation::WritePath(ULONG bytes, Fill fill) {
    EventBuffer* pathBuffer = nullptr;
    auto* const space = static_cast<UCHAR*>(PlacePath(bytes + kTerminator, &pathBuffer));
    if (space == nullptr) {
        return false;
    }
    if (fill(space)) {
        SetName(space);
    }
    if (pathBuffer != nullptr) {
        MemRelease(pathBuffer);
    }
    return true;
}

/// Finds room for a path in the record's buffer: a reservation of its own there, returned with
/// `pathBuffer`, or else a new reservation for record and path together, which replaces the
/// record's; the abandoned one is never committed, so no reader sees it. Null: no space, and no
/// record any more.
PVOID RecordReservation::PlacePath(ULONG bytes, EventBuffer** pathBuffer) {
    ULONG pathSize = bytes;
    ULONG sequence = sequence_;
    PVOID path = MemReserve(&pathSize, pathBuffer, &sequence, MEM_RESERVE_SAME_BUFFER);
    if (path != nullptr) {
        return path;
    }
    MemRelease(buffer_);
    // A path is at most 64 KiB long. A record whose size leaves no room for that in 32 bits fits
    // nowhere: it has not got this far.
    ULONG wholeSize = size_ + pathSize;
    header_ = static_cast<RecordHeader*>(MemReserve(&wholeSize, &buffer_, &sequence_, 0));
    if (header_ == nullptr) {
        return nullptr;
    }
    header_->NameOffset = 0;
    return reinterpret_cast<UCHAR*>(header_) + size_;
}

void RecordReservation::SetName(const void* path) const {
    header_->NameOffset = static_cast<LONG>(static_cast<const UCHAR*>(path) -
                                            reinterpret_cast<const UCHAR*>(header_));
}

void RecordReservation::FillHeader(RecordType type, const KeyObjectContext& context) const {
    RecordHeader& header = *header_;
    header.Type = type;
    header.NextOffset = 0;
    header.ProcessId = static_cast<std::uint32_t>(context.Process->ProcessId);
    header.ProcessKey = context.Process->ProcessKey;
    LARGE_INTEGER now;
    KeQuerySystemTime(&now);
    header.SystemTime = static_cast<std::uint64_t>(now.QuadPart);
    header.KeyOperations = static_cast<OperationMask>(ReadNoFence(&context.KeyOperations));
}

}  // namespace zpregflt
