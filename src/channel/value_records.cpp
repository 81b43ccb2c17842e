#include "channel/value_records.h"

#include <lock_guards.h>

#include "channel/value_cache.h"
#include "channel/value_capture.h"
#include "intercept/operation_trace.h"
#include "intercept/tracing.h"
#include "records/caller_memory.h"
#include "records/caller_name.h"
#include "records/post_operation.h"
#include "records/record_size.h"
#include "records/record_writer.h"

namespace zpregflt {

namespace {

using SetInformation = REG_SET_VALUE_KEY_INFORMATION;

constexpr ULONG_PTR kFlagBits = CALL_CONTEXT_CACHE | CALL_CONTEXT_RECORD;

bool ReportsOriginal(const DriverState& state) {
    return ReadUCharNoFence(reinterpret_cast<const volatile UCHAR*>(&state.ReportOriginal)) != 0;
}

/// A set as its caller asked for it, with the descriptor of the value's name read once: ValueName
/// is the copy, and empty when there is none to be had.
struct NamedSet : SetInformation {
    UNICODE_STRING name;
    bool named;

    explicit NamedSet(const SetInformation& request)
        : SetInformation(request), named(ReadString(request.ValueName, name)) {
        ValueName = &name;
    }
    NamedSet(const NamedSet&) = delete;
    NamedSet& operator=(const NamedSet&) = delete;
};

void StoreCallContext(SetInformation& set, SetValueCallContext* block, ULONG_PTR flags) {
    set.CallContext = reinterpret_cast<PVOID>(reinterpret_cast<ULONG_PTR>(block) | flags);
}

SetValueCallContext* NewCallContext(DriverState& state, ValueCacheEntry* entry,
                                    PreviousValue previous) {
    auto* const block = static_cast<SetValueCallContext*>(
        ExAllocateFromPagedLookasideList(&state.CallContextLookaside));
    if (block != nullptr) {
        *block = {entry, previous.Detach()};
    }
    return block;
}

void TraceUnchanged(const SetInformation& set) {
    ZPRF_TRACE_FILTERED(TRACE_OPERATION, TRACE_LEVEL_WARNING, operation::kSetValueKey,
                        "process %p, key %p: value %Z set to what it is", PsGetCurrentProcessId(),
                        set.Object, &CallerName(set.ValueName).Text());
}

/// A value that was captured short counts as unchanged when a set of just the captured bytes comes.
Comparison CompareData(const SetInformation& set, const ValueCacheEntry& entry) {
    if (set.Type != entry.Value.DataType || set.DataSize != entry.CapturedLength) {
        return Comparison::kDifferent;
    }
    return CompareWithCaller(entry.Value.Data, set.Data, set.DataSize);
}

Comparison CompareData(const SetInformation& set, const KEY_VALUE_PARTIAL_INFORMATION& current) {
    if (set.Type != current.Type || set.DataSize != current.DataLength) {
        return Comparison::kDifferent;
    }
    return CompareWithCaller(current.Data, set.Data, set.DataSize);
}

/// The process has set this value before, and `entry` holds what it set. Returns whether the entry
/// went to the post-notification.
bool JudgeCached(SetInformation& set, DriverState& state, ValueCacheEntry* entry) {
    const Comparison comparison = CompareData(set, *entry);
    if (comparison != Comparison::kDifferent) {
        if (comparison == Comparison::kEqual) {
            TraceUnchanged(set);
        }
        return false;
    }
    PreviousValue previous;
    // The record that the entry's last set left tells the data before this one; after a set that
    // left none, the registry does. The cache may not: another process may have set it since.
    if (ReportsOriginal(state) && (ReadULongNoFence(&entry->Flags) & ENTRY_RECORDED) == 0) {
        previous = QueryCurrentValue(set.Object, set.ValueName);
    }
    SetValueCallContext* const block = NewCallContext(state, entry, std::move(previous));
    if (block == nullptr) {
        return false;
    }
    StoreCallContext(set, block, CALL_CONTEXT_RECORD);
    return true;
}

/// The process has not set this value before, or the cache has forgotten: the registry tells.
void JudgeByRegistry(SetInformation& set, DriverState& state) {
    PreviousValue current = QueryCurrentValue(set.Object, set.ValueName);
    // Data that cannot be read changes nothing: the set is about to fail.
    if (current && CompareData(set, *current) != Comparison::kDifferent) {
        TraceUnchanged(set);
        StoreCallContext(set, nullptr, CALL_CONTEXT_CACHE);
        return;
    }
    SetValueCallContext* block = nullptr;
    if (ReportsOriginal(state) && current) {
        block = NewCallContext(state, nullptr, std::move(current));
    }
    StoreCallContext(set, block, CALL_CONTEXT_CACHE | CALL_CONTEXT_RECORD);
}

/// The process's cache, made if it has none; null when that fails.
ValueCache* EnsureCache(ProcessContext& process) {
    if (ValueCache* cache = process.ValueCachePointer(); cache != nullptr) {
        return cache;
    }
    const GuardedMutexGuard guard(process.CacheLock);
    if (ValueCache* cache = process.ValueCachePointer(); cache != nullptr) {
        return cache;
    }
    ValueCache* const created = ValueCacheCreate();
    WritePointerRelease(&process.Cache, created);
    return created;
}

/// Where the parts of a value-set record lie.
struct ValueSetLayout {
    ULONG captured;
    ULONG nameOffset;
    ULONG previousOffset;
    ULONG previousCaptured;
    ULONG64 size;
};

ValueSetLayout LayOut(const DriverState& state, const NamedSet& set,
                      const KEY_VALUE_PARTIAL_INFORMATION* previous) {
    ValueSetLayout layout = {};
    layout.captured = CapturedSize(state, set.DataSize);
    const ULONG64 nameOffset = ULONG64{ValueSetRecord::kDataOffset} + layout.captured;
    layout.nameOffset = static_cast<ULONG>(nameOffset);
    layout.size = nameOffset + set.name.Length + kTerminator;
    if (previous != nullptr) {
        const ULONG64 previousOffset = RoundUpToFour(layout.size);
        layout.previousOffset = static_cast<ULONG>(previousOffset);
        layout.previousCaptured = CapturedSize(state, previous->DataLength);
        layout.size = previousOffset + layout.previousCaptured;
    }
    return layout;
}

bool WriteValueSetRecord(const DriverState& state, const PostOperation& post, const NamedSet& set,
                         const KEY_VALUE_PARTIAL_INFORMATION* previous) {
    const ValueSetLayout layout = LayOut(state, set, previous);
    const RecordWriter<ValueSetRecord> record(RecordType::kValueSet, post.Object, ContextOf(post),
                                              operation::kSetValueKey, RecordSize(layout.size));
    if (!record) {
        return false;
    }
    record->ValueNameOffset = layout.nameOffset;
    record->ValueType = set.Type;
    record->DataSize = set.DataSize;
    const bool readable =
        CopyFromCaller(record.At(ValueSetRecord::kDataOffset), set.Data, layout.captured);
    record->CapturedLength = readable ? layout.captured : 0;
    CopyStringFromCaller(record.At(layout.nameOffset), &set.name, set.name.Length);
    record->PreviousOffset = layout.previousOffset;
    if (previous != nullptr) {
        record->PreviousSize = previous->DataLength;
        record->PreviousCapturedLength = layout.previousCaptured;
        RtlCopyMemory(record.At(layout.previousOffset), previous->Data, layout.previousCaptured);
    }
    return true;
}

/// What a successful set leaves behind: the cache's knowledge and the record.
bool AfterSuccess(DriverState& state, const PostOperation& post, const SetValueCallContext* block,
                  ULONG_PTR flags) {
    const NamedSet set(RequestOf<SetInformation>(post));
    KeyObjectContext& context = ContextOf(post);
    if (block != nullptr && block->Entry != nullptr) {
        ValueCacheSetPending(&state, block->Entry, set);
    }
    if ((flags & CALL_CONTEXT_CACHE) != 0) {
        if (EnsureCache(*context.ProcessContext) == nullptr) {
            ZPRF_TRACE_FILTERED(TRACE_OPERATION, TRACE_LEVEL_WARNING, operation::kSetValueKey,
                                "process %p: no memory for its value cache",
                                PsGetCurrentProcessId());
            return false;
        }
        if (set.named) {
            ValueCacheInsert(&state, &context, set, (flags & CALL_CONTEXT_RECORD) != 0);
        }
    }
    return (flags & CALL_CONTEXT_RECORD) != 0 &&
           WriteValueSetRecord(state, post, set, block != nullptr ? block->Previous : nullptr);
}

void GiveBack(DriverState& state, SetValueCallContext* block) {
    if (block == nullptr) {
        return;
    }
    if (block->Entry != nullptr) {
        ValueCacheRelease(block->Entry->Cache, block->Entry, false);
    }
    PreviousValue(block->Previous).Reset();
    ExFreeToPagedLookasideList(&state.CallContextLookaside, block);
}

void TraceSet(const SetInformation& set) {
    if (trace_detail::OperationTraced(operation::kSetValueKey)) [[unlikely]] {
        const CallerName name(set.ValueName);
        trace_detail::EmitOperation(
            set.Object, "process %p, key %p %Z: SetValueKey %Z by %p on %p, type %u, %u bytes",
            &name.Text(), PsGetCurrentProcessId(), set.Object, set.Type, set.DataSize);
    }
}

void Judge(SetInformation& set, DriverState& state) {
    const auto& context = *static_cast<const KeyObjectContext*>(set.ObjectContext);
    ValueCache* const cache = context.ProcessContext->ValueCachePointer();
    ValueCacheEntry* const entry =
        cache != nullptr ? ValueCacheLookup(cache, CacheKeyOf(context), *set.ValueName) : nullptr;
    if (entry == nullptr) {
        JudgeByRegistry(set, state);
    } else if (!JudgeCached(set, state, entry)) {
        ValueCacheRelease(cache, entry, false);
    }
}

}  // namespace

bool NTAPI PreSetValue(PVOID notification, DriverState* state) {
    auto& request = *static_cast<SetInformation*>(notification);
    TraceSet(request);
    NamedSet set(request);
    if (set.named) {
        Judge(set, *state);
    } else {
        // Nothing tells which value it is: an empty name would be that of the default value.
        StoreCallContext(set, nullptr, CALL_CONTEXT_RECORD);
    }
    request.CallContext = set.CallContext;
    return false;
}

bool NTAPI ValueSet(PVOID notification, DriverState* state) {
    const auto& post = *static_cast<const PostOperation*>(notification);
    const auto callContext = reinterpret_cast<ULONG_PTR>(post.CallContext);
    if (callContext == 0) {
        return false;
    }
    auto* const block = reinterpret_cast<SetValueCallContext*>(callContext & ~kFlagBits);
    ZPRF_TRACE_FILTERED(TRACE_OPERATION, TRACE_LEVEL_INFORMATION, operation::kSetValueKey,
                        "key %p: set value, status %x, call context %p", post.Object, post.Status,
                        post.CallContext);
    const bool recorded =
        post.Status == STATUS_SUCCESS && AfterSuccess(*state, post, block, callContext & kFlagBits);
    GiveBack(*state, block);
    return recorded;
}

namespace {

void TraceValueDeletion(const PostOperation& post, PCUNICODE_STRING valueName) {
    if (trace_detail::OperationTraced(operation::kDeleteValueKey)) [[unlikely]] {
        const CallerName name(valueName);
        trace_detail::EmitOperation(post.Object, "process %p, key %p %Z: DeleteValueKey %Z",
                                    &name.Text());
    }
}

bool WriteValueDeletedRecord(const PostOperation& post, const UNICODE_STRING& name) {
    const RecordWriter<NameRecord> record(
        RecordType::kValueDeleted, post.Object, ContextOf(post), operation::kDeleteValueKey,
        RecordSize(NameRecord::kNameOffset, name.Length, kTerminator));
    if (!record) {
        return false;
    }
    CopyStringFromCaller(record.At(NameRecord::kNameOffset), &name, name.Length);
    return true;
}

/// The process's own knowledge of a value that it has deleted is void.
void ForgetValue(const KeyObjectContext& context, const UNICODE_STRING& name) {
    ValueCache* const cache = context.ProcessContext->ValueCachePointer();
    if (cache == nullptr) {
        return;
    }
    ValueCacheEntry* const entry = ValueCacheLookup(cache, CacheKeyOf(context), name);
    if (entry != nullptr) {
        ValueCacheRelease(cache, entry, true);
    }
}

}  // namespace

bool NTAPI ValueDeleted(PVOID notification, DriverState*) {
    const auto& post = *static_cast<const PostOperation*>(notification);
    const auto& deletion = RequestOf<REG_DELETE_VALUE_KEY_INFORMATION>(post);
    TraceValueDeletion(post, deletion.ValueName);
    UNICODE_STRING name;
    const bool named = ReadString(deletion.ValueName, name);
    const KeyObjectContext& context = ContextOf(post);
    const bool recorded = (context.ProcessContext->Operations & operation::kDeleteValueKey) != 0 &&
                          WriteValueDeletedRecord(post, name);
    if (named) {
        ForgetValue(context, name);
    }
    return recorded;
}

}  // namespace zpregflt
