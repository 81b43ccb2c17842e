#include "records/query_records.h"

#include "intercept/operation_trace.h"
#include "records/caller_memory.h"
#include "records/caller_name.h"
#include "records/post_operation.h"
#include "records/record_size.h"
#include "records/record_writer.h"

namespace zpregflt {

namespace {

/// A record of what the caller was given, whose length the caller was told in `resultLength`: read
/// here once, and that counts. Without it there is no record.
bool WriteResultRecord(RecordType type, const PostOperation& post, OperationMask bit,
                       ULONG informationClass, const void* data, const ULONG* resultLength) {
    ULONG length = 0;
    return ReadCaller(resultLength, length) &&
           WriteInformationRecord(type, post, bit, informationClass, data, length);
}

}  // namespace

bool NTAPI SubkeyEnumerated(PVOID notification, DriverState*) {
    const auto& post = *static_cast<const PostOperation*>(notification);
    const auto& request = RequestOf<REG_ENUMERATE_KEY_INFORMATION>(post);
    TraceOperation(post.Object, operation::kEnumerateKey,
                   "process %p, key %p %Z: EnumerateKey class %u", request.KeyInformationClass);
    return WriteResultRecord(RecordType::kSubkeyEnumerated, post, operation::kEnumerateKey,
                             static_cast<ULONG>(request.KeyInformationClass),
                             request.KeyInformation, request.ResultLength);
}

bool NTAPI ValueEnumerated(PVOID notification, DriverState*) {
    const auto& post = *static_cast<const PostOperation*>(notification);
    const auto& request = RequestOf<REG_ENUMERATE_VALUE_KEY_INFORMATION>(post);
    TraceOperation(post.Object, operation::kEnumerateValueKey,
                   "process %p, key %p %Z: EnumerateValueKey %u, class %u", request.Index,
                   request.KeyValueInformationClass);
    ULONG length = 0;
    if (!ReadCaller(request.ResultLength, length)) {
        return false;
    }
    constexpr ULONG kData = ValueEnumeratedRecord::kDataOffset;
    const RecordWriter<ValueEnumeratedRecord> record(RecordType::kValueEnumerated, post.Object,
                                                     ContextOf(post), operation::kEnumerateValueKey,
                                                     RecordSize(kData, length));
    if (!record) {
        return false;
    }
    record->Index = request.Index;
    record->InformationClass = static_cast<ULONG>(request.KeyValueInformationClass);
    record->DataLength = CopyOrNothing(record.At(kData), request.KeyValueInformation, length);
    return true;
}

bool NTAPI KeyQueried(PVOID notification, DriverState*) {
    const auto& post = *static_cast<const PostOperation*>(notification);
    const auto& request = RequestOf<REG_QUERY_KEY_INFORMATION>(post);
    TraceOperation(post.Object, operation::kQueryKey, "process %p, key %p %Z: QueryKey class %u",
                   request.KeyInformationClass);
    return WriteResultRecord(RecordType::kKeyQueried, post, operation::kQueryKey,
                             static_cast<ULONG>(request.KeyInformationClass),
                             request.KeyInformation, request.ResultLength);
}

bool NTAPI KeySecurityQueried(PVOID notification, DriverState*) {
    const auto& post = *static_cast<const PostOperation*>(notification);
    const auto& request = RequestOf<REG_QUERY_KEY_SECURITY_INFORMATION>(post);
    SECURITY_INFORMATION requested = 0;
    ReadCaller(request.SecurityInformation, requested);
    TraceOperation(post.Object, operation::kQueryKeySecurity,
                   "process %p, key %p %Z: QueryKeySecurity %x", requested);
    return WriteResultRecord(RecordType::kKeySecurityQueried, post, operation::kQueryKeySecurity,
                             requested, request.SecurityDescriptor, request.Length);
}

bool NTAPI KeyNameQueried(PVOID notification, DriverState*) {
    const auto& post = *static_cast<const PostOperation*>(notification);
    TraceKey(post, operation::kQueryKeyName, "QueryKeyName");
    return WriteHeaderRecord(RecordType::kKeyNameQueried, post, operation::kQueryKeyName);
}

// --- One value -----------------------------------------------------------------------------------

namespace {

void TraceValueQuery(const PostOperation& post, const REG_QUERY_VALUE_KEY_INFORMATION& request) {
    if (trace_detail::OperationTraced(operation::kQueryValueKey)) [[unlikely]] {
        const CallerName name(request.ValueName);
        trace_detail::EmitOperation(post.Object, "process %p, key %p %Z: QueryValueKey %Z class %u",
                                    &name.Text(), request.KeyValueInformationClass);
    }
}

}  // namespace

bool NTAPI ValueQueried(PVOID notification, DriverState*) {
    const auto& post = *static_cast<const PostOperation*>(notification);
    const auto& request = RequestOf<REG_QUERY_VALUE_KEY_INFORMATION>(post);
    TraceValueQuery(post, request);
    ULONG length = 0;
    if (!ReadCaller(request.ResultLength, length)) {
        return false;
    }
    UNICODE_STRING name;
    ReadString(request.ValueName, name);
    constexpr ULONG kData = ValueQueriedRecord::kDataOffset;
    const ULONG64 nameOffset = RoundUpToFour(ULONG64{kData} + length);
    const RecordWriter<ValueQueriedRecord> record(RecordType::kValueQueried, post.Object,
                                                  ContextOf(post), operation::kQueryValueKey,
                                                  RecordSize(nameOffset, name.Length, kTerminator));
    if (!record) {
        return false;
    }
    record->ValueNameOffset = static_cast<ULONG>(nameOffset);
    record->InformationClass = static_cast<ULONG>(request.KeyValueInformationClass);
    const bool dataRead = CopyFromCaller(record.At(kData), request.KeyValueInformation, length);
    const bool nameRead =
        CopyStringFromCaller(record.At(static_cast<ULONG>(nameOffset)), &name, name.Length);
    record->DataLength = dataRead && nameRead ? length : 0;
    return true;
}

// --- Several values ------------------------------------------------------------------------------

namespace {

using ValuesRequest = REG_QUERY_MULTIPLE_VALUE_KEY_INFORMATION;

/// Where the parts of the record of several values lie.
struct ValuesLayout {
    ULONG64 namesOffset;
    ULONG64 namesEnd;
    ULONG64 dataOffset;
    ULONG dataLength;
};

/// Reads an entry and its name's descriptor. False when one cannot be read: it is empty then.
///
/// Systems differ in whether they hand over the caller's entries or a copy. The caller's own can be
/// changed at any moment, also to point into the system's memory: their names are followed only
/// where programs have theirs.
bool ReadEntry(const KEY_VALUE_ENTRY* from, KEY_VALUE_ENTRY& value, UNICODE_STRING& name) {
    name = {};
    if (!ReadCaller(from, value)) {
        value = {};
        return false;
    }
    const bool isCallers = IsUserMemory(from, sizeof(*from));
    if (isCallers && !IsUserMemory(value.ValueName, sizeof(*value.ValueName))) {
        return false;
    }
    if (!ReadString(value.ValueName, name)) {
        return false;
    }
    if (isCallers && !IsUserMemory(name.Buffer, name.Length)) {
        name = {};
        return false;
    }
    return true;
}

/// False when something that the sizes depend on cannot be read.
bool LayOut(const ValuesRequest& request, ValuesLayout& layout) {
    layout.namesOffset = ULONG64{ValuesQueriedRecord::kEntriesOffset} +
                         ULONG64{request.EntryCount} * sizeof(ValuesQueriedEntry);
    layout.namesEnd = layout.namesOffset;
    for (ULONG i = 0; i < request.EntryCount; ++i) {
        KEY_VALUE_ENTRY value;
        UNICODE_STRING name;
        if (!ReadEntry(request.ValueEntries + i, value, name)) {
            return false;
        }
        layout.namesEnd += name.Length + kTerminator;
    }
    layout.dataOffset = RoundUpToFour(layout.namesEnd);
    return ReadCaller(request.BufferLength, layout.dataLength);
}

/// Writes the entries and their names into the space that was sized for them.
///
/// There is no memory to keep the names' lengths in since they were sized, so they are read again,
/// and the caller may have changed them. The invariant that holds all names within their space is
/// that before each entry it has room for a terminator for this entry and each one after it. A name
/// that would break it is left out, as is one that cannot be read: the entry then has an empty one.
class EntryWriter {
public:
    EntryWriter(const RecordWriter<ValuesQueriedRecord>& record, const ValuesLayout& layout,
                ULONG count)
        : record_(record),
          dataOffset_(static_cast<ULONG>(layout.dataOffset)),
          position_(static_cast<ULONG>(layout.namesOffset)),
          spare_(static_cast<ULONG>(layout.namesEnd - layout.namesOffset) - count * kTerminator) {}

    void Write(ULONG index, const KEY_VALUE_ENTRY* source) {
        KEY_VALUE_ENTRY value;
        UNICODE_STRING name;
        ReadEntry(source, value, name);
        *EntryAt(index) = {value.DataLength, value.DataOffset + dataOffset_, value.Type, position_};
        WriteName(name.Length <= spare_ ? name : UNICODE_STRING{});
    }

private:
    ValuesQueriedEntry* EntryAt(ULONG index) const {
        return reinterpret_cast<ValuesQueriedEntry*>(
                   record_.At(ValuesQueriedRecord::kEntriesOffset)) +
               index;
    }
    void WriteName(const UNICODE_STRING& name) {
        const bool readable = CopyStringFromCaller(record_.At(position_), &name, name.Length);
        const ULONG length = readable ? name.Length : 0;
        spare_ -= length;
        position_ += length + kTerminator;
    }

    const RecordWriter<ValuesQueriedRecord>& record_;
    ULONG dataOffset_;
    ULONG position_;  ///< of the next name
    ULONG spare_;     ///< bytes left for names once every one of them has its terminator
};

}  // namespace

bool NTAPI ValuesQueried(PVOID notification, DriverState*) {
    const auto& post = *static_cast<const PostOperation*>(notification);
    const auto& request = RequestOf<ValuesRequest>(post);
    TraceOperation(post.Object, operation::kQueryMultipleValueKey,
                   "process %p, key %p %Z: QueryMultipleValueKey, %u values", request.EntryCount);
    ValuesLayout layout;
    if (!LayOut(request, layout)) {
        return false;
    }
    const RecordWriter<ValuesQueriedRecord> record(
        RecordType::kValuesQueried, post.Object, ContextOf(post), operation::kQueryMultipleValueKey,
        RecordSize(layout.dataOffset, layout.dataLength));
    if (!record) {
        return false;
    }
    record->EntryCount = request.EntryCount;
    EntryWriter entries(record, layout, request.EntryCount);
    for (ULONG i = 0; i < request.EntryCount; ++i) {
        entries.Write(i, request.ValueEntries + i);
    }
    UCHAR* const data = record.At(static_cast<ULONG>(layout.dataOffset));
    if (!CopyFromCaller(data, request.ValueBuffer, layout.dataLength)) {
        // The entries refer to it: better none than what a buffer held before.
        RtlZeroMemory(data, layout.dataLength);
    }
    return true;
}

}  // namespace zpregflt
