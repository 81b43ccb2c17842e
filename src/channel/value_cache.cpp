#include "channel/value_cache.h"

#include <lock_guards.h>

#include "channel/value_capture.h"
#include "driver/driver_state.h"
#include "intercept/contexts.h"
#include "intercept/references.h"
#include "intercept/tracing.h"
#include "records/caller_memory.h"

namespace zpregflt {

constinit ValueCacheTotals CacheTotals = {};

namespace {

constinit NPAGED_LOOKASIDE_LIST MutexLookaside = {};
constinit PAGED_LOOKASIDE_LIST PendingLookaside = {};
constinit volatile LONG lastKeyIdentity = 0;

using NameBlock = PoolBlock<WCHAR, kCacheNameTag>;
using DataBlock = PoolBlock<UCHAR, kCacheDataTag>;

LIST_ENTRY& BucketOf(ValueCache& cache, const ValueCacheKey& key) {
    return cache.Buckets[reinterpret_cast<ULONG_PTR>(key.Node) >> 3 & (kCacheBucketCount - 1)];
}

/// The entry that represents the key's ring in the bucket, or null.
ValueCacheEntry* FindRing(ValueCache& cache, const ValueCacheKey& key) {
    LIST_ENTRY& bucket = BucketOf(cache, key);
    for (PLIST_ENTRY link = bucket.Flink; link != &bucket; link = link->Flink) {
        auto* const entry = CONTAINING_RECORD(link, ValueCacheEntry, BucketLinks);
        if (entry->Key == key) {
            return entry;
        }
    }
    return nullptr;
}

/// A name that cannot be read is the name of nothing.
bool HasName(const ValueCacheEntry& entry, const UNICODE_STRING& name) {
    const USHORT length = name.Length;
    return entry.ValueName.Length == length &&
           CompareWithCaller(entry.ValueName.Buffer, name.Buffer, length) == Comparison::kEqual;
}

ValueCacheEntry* FindInRing(ValueCacheEntry* first, const UNICODE_STRING& name) {
    ValueCacheEntry* entry = first;
    do {
        if (HasName(*entry, name)) {
            return entry;
        }
        entry = CONTAINING_RECORD(entry->KeyLinks.Flink, ValueCacheEntry, KeyLinks);
    } while (entry != first);
    return nullptr;
}

void EnterRing(ValueCache& cache, ValueCacheEntry& entry) {
    ValueCacheEntry* const ring = FindRing(cache, entry.Key);
    if (ring != nullptr) {
        InsertTailList(&ring->KeyLinks, &entry.KeyLinks);
        InitializeListHead(&entry.BucketLinks);
        return;
    }
    InitializeListHead(&entry.KeyLinks);
    InsertTailList(&BucketOf(cache, entry.Key), &entry.BucketLinks);
}

/// Another member, if there is one, comes to represent the ring in the bucket.
void LeaveRing(ValueCache& cache, ValueCacheEntry& entry) {
    if (!IsListEmpty(&entry.BucketLinks)) {
        RemoveEntryList(&entry.BucketLinks);
        if (!IsListEmpty(&entry.KeyLinks)) {
            auto* const next = CONTAINING_RECORD(entry.KeyLinks.Flink, ValueCacheEntry, KeyLinks);
            InsertHeadList(&BucketOf(cache, entry.Key), &next->BucketLinks);
        }
    }
    RemoveEntryList(&entry.KeyLinks);
}

void FreeData(ValueCacheEntry& entry) {
    if (!entry.HasInlineData()) {
        ExFreePoolWithTag(entry.Value.Data, kCacheDataTag);
    }
}

void FreePending(PendingValue* pending) {
    if (pending->Data != nullptr) {
        ExFreePoolWithTag(pending->Data, kCacheDataTag);
    }
    ExFreeToPagedLookasideList(&PendingLookaside, pending);
}

void MoveToTail(LIST_ENTRY& list, LIST_ENTRY& links) {
    RemoveEntryList(&links);
    InsertTailList(&list, &links);
}

/// Lock held. Makes the entry free.
void ValueCacheRemove(ValueCache& cache, ValueCacheEntry& entry) {
    LeaveRing(cache, entry);
    RemoveEntryList(&entry.AgeLinks);
    if (!entry.HasInlineName()) {
        ExFreePoolWithTag(entry.ValueName.Buffer, kCacheNameTag);
    }
    FreeData(entry);
    if (entry.Pending != nullptr) {
        FreePending(entry.Pending);
        entry.Pending = nullptr;
    }
    InsertHeadList(&cache.FreeList, &entry.FreeLinks);
}

/// Lock held. The entry that has been idle longest makes room; false when every entry is held.
bool Evict(ValueCache& cache) {
    if (IsListEmpty(&cache.IdleList)) {
        return false;
    }
    ++cache.Evictions;
    ValueCacheRemove(cache, *CONTAINING_RECORD(cache.IdleList.Flink, ValueCacheEntry, AgeLinks));
    return true;
}

/// Lock held, nobody holds the entry. Consumes the pending value.
void ValueCacheApplyPending(ValueCacheEntry& entry) {
    PendingValue& pending = *entry.Pending;
    FreeData(entry);
    if (pending.CapturedLength <= sizeof(entry.InlineData)) {
        if (pending.Data != nullptr) {
            RtlCopyMemory(entry.InlineData, pending.Data, pending.CapturedLength);
        }
        entry.Value.Data = entry.InlineData;
    } else {
        entry.Value.Data = std::exchange(pending.Data, nullptr);
    }
    entry.Value.DataType = pending.DataType;
    entry.CapturedLength = pending.CapturedLength;
    entry.DataLength = pending.DataLength;
    FreePending(&pending);
    entry.Pending = nullptr;
}

void SetFlags(ValueCacheEntry& entry, ULONG flags) {
    WriteULongNoFence(&entry.Flags, flags);
}

/// The name and data of a new entry, copied before the Lock is taken: reading the caller's memory
/// may take its time. What is longer than an entry's room lies in a block of its own.
struct NewEntryContents {
    NameBlock nameBlock;
    DataBlock dataBlock;
    WCHAR inlineName[sizeof(ValueCacheEntry::InlineName) / sizeof(WCHAR)];
    UCHAR inlineData[sizeof(ValueCacheEntry::InlineData)];
    USHORT nameLength;
    ULONG capturedLength;
};

/// False: no memory, or no name to tell the value by.
bool CopyName(const UNICODE_STRING& name, NewEntryContents& contents) {
    contents.nameLength = name.Length;
    PWSTR to = contents.inlineName;
    if (contents.nameLength > sizeof(contents.inlineName)) {
        contents.nameBlock.Reset(static_cast<PWSTR>(
            ExAllocatePoolWithTag(PagedPool, contents.nameLength, kCacheNameTag)));
        to = contents.nameBlock.Get();
    }
    return to != nullptr && CopyFromCaller(to, name.Buffer, contents.nameLength);
}

/// False: no memory. Data that cannot be read are remembered as none.
bool CopyData(const REG_SET_VALUE_KEY_INFORMATION& set, ULONG captured,
              NewEntryContents& contents) {
    PUCHAR to = contents.inlineData;
    if (captured > sizeof(contents.inlineData)) {
        contents.dataBlock.Reset(
            static_cast<PUCHAR>(ExAllocatePoolWithTag(PagedPool, captured, kCacheDataTag)));
        to = contents.dataBlock.Get();
    }
    if (to == nullptr) {
        return false;
    }
    contents.capturedLength = CopyFromCaller(to, set.Data, captured) ? captured : 0;
    return true;
}

void TakeName(ValueCacheEntry& entry, NewEntryContents& contents) {
    const USHORT length = contents.nameLength;
    if (contents.nameBlock) {
        entry.ValueName = {length, length, contents.nameBlock.Detach()};
        InterlockedIncrement64(&CacheTotals.AllocatedNames);
    } else {
        RtlCopyMemory(entry.InlineName, contents.inlineName, length);
        entry.ValueName = {length, sizeof(entry.InlineName), entry.InlineName};
        InterlockedIncrement64(&CacheTotals.InlineNames);
    }
}

void TakeData(ValueCacheEntry& entry, NewEntryContents& contents) {
    if (contents.dataBlock) {
        entry.Value.Data = contents.dataBlock.Detach();
        InterlockedIncrement64(&CacheTotals.AllocatedData);
    } else {
        RtlCopyMemory(entry.InlineData, contents.inlineData, contents.capturedLength);
        entry.Value.Data = entry.InlineData;
        InterlockedIncrement64(&CacheTotals.InlineData);
    }
    entry.CapturedLength = contents.capturedLength;
}

void AddTotals(const ValueCache& cache) {
    InterlockedExchangeAdd64(&CacheTotals.Hits, static_cast<LONG64>(cache.Hits));
    InterlockedExchangeAdd64(&CacheTotals.Misses, static_cast<LONG64>(cache.Misses));
    InterlockedExchangeAdd64(&CacheTotals.Full, static_cast<LONG64>(cache.Full));
    InterlockedExchangeAdd64(&CacheTotals.Evictions, static_cast<LONG64>(cache.Evictions));
}

ULONG CountLinks(const LIST_ENTRY& list) {
    ULONG count = 0;
    for (const LIST_ENTRY* link = list.Flink; link != &list; link = link->Flink) {
        ++count;
    }
    return count;
}

void TraceCache(const ValueCache& cache) {
    if (!TraceEnabled(TRACE_CAPTURE, TRACE_LEVEL_VERBOSE)) {
        return;
    }
    ULONG buckets = 0;
    ULONG keys = 0;
    for (const LIST_ENTRY& bucket : cache.Buckets) {
        buckets += IsListEmpty(&bucket) ? 0 : 1;
        keys += CountLinks(bucket);
    }
    ZPRF_TRACE(TRACE_CAPTURE, TRACE_LEVEL_VERBOSE,
               "cache %p: %u buckets, %u keys, %u entries; hits %llu, misses %llu, full %llu, "
               "evictions %llu",
               &cache, buckets, keys, kCacheEntryCount - CountLinks(cache.FreeList), cache.Hits,
               cache.Misses, cache.Full, cache.Evictions);
}

void RemoveAll(ValueCache& cache, LIST_ENTRY& list) {
    while (!IsListEmpty(&list)) {
        ValueCacheRemove(cache, *CONTAINING_RECORD(list.Flink, ValueCacheEntry, AgeLinks));
    }
}

}  // namespace

void ValueCacheInitialize() {
    CacheTotals = {};
    ExInitializeNPagedLookasideList(&MutexLookaside, nullptr, nullptr,
                                    static_cast<ULONG>(NonPagedPoolType), sizeof(KGUARDED_MUTEX),
                                    kCacheMutexTag, 0);
    ExInitializePagedLookasideList(&PendingLookaside, nullptr, nullptr, 0, sizeof(PendingValue),
                                   kPendingValueTag, 0);
}

void ValueCacheUninitialize() {
    ExDeleteNPagedLookasideList(&MutexLookaside);
    ExDeletePagedLookasideList(&PendingLookaside);
}

void ValueCacheReportTotals() {
    ZPRF_TRACE(TRACE_CAPTURE, TRACE_LEVEL_VERBOSE,
               "value caches: hits %lld, misses %lld, full %lld, evictions %lld", CacheTotals.Hits,
               CacheTotals.Misses, CacheTotals.Full, CacheTotals.Evictions);
    ZPRF_TRACE(TRACE_CAPTURE, TRACE_LEVEL_VERBOSE,
               "value caches: data inline %lld, allocated %lld; names inline %lld, allocated %lld",
               CacheTotals.InlineData, CacheTotals.AllocatedData, CacheTotals.InlineNames,
               CacheTotals.AllocatedNames);
}

ValueCache* ValueCacheCreate() {
    auto* const cache =
        static_cast<ValueCache*>(ExAllocatePoolWithTag(PagedPool, sizeof(ValueCache), kCacheTag));
    if (cache == nullptr) {
        return nullptr;
    }
    RtlZeroMemory(cache, sizeof(*cache));
    cache->Lock = static_cast<PKGUARDED_MUTEX>(ExAllocateFromNPagedLookasideList(&MutexLookaside));
    if (cache->Lock == nullptr) {
        ExFreePoolWithTag(cache, kCacheTag);
        return nullptr;
    }
    KeInitializeGuardedMutex(cache->Lock);
    for (LIST_ENTRY& bucket : cache->Buckets) {
        InitializeListHead(&bucket);
    }
    InitializeListHead(&cache->IdleList);
    InitializeListHead(&cache->BusyList);
    InitializeListHead(&cache->FreeList);
    for (ValueCacheEntry& entry : cache->Entries) {
        InsertTailList(&cache->FreeList, &entry.FreeLinks);
    }
    return cache;
}

void ValueCacheDestroy(ValueCache* cache) {
    AddTotals(*cache);
    TraceCache(*cache);
    {
        const GuardedMutexGuard guard(*cache->Lock);
        RemoveAll(*cache, cache->IdleList);
        RemoveAll(*cache, cache->BusyList);
    }
    ExFreeToNPagedLookasideList(&MutexLookaside, cache->Lock);
    ExFreePoolWithTag(cache, kCacheTag);
}

ULONG NewKeyIdentity() {
    LONG last = ReadNoFence(&lastKeyIdentity);
    for (;;) {
        if (static_cast<ULONG>(last) == MAXULONG) {
            return 0;
        }
        const LONG next = static_cast<LONG>(static_cast<ULONG>(last) + 1);
        const LONG seen = InterlockedCompareExchange(&lastKeyIdentity, next, last);
        if (seen == last) {
            return static_cast<ULONG>(next);
        }
        last = seen;
    }
}

ValueCacheKey CacheKeyOf(const KeyObjectContext& context) {
    const KeyEntry* const entry = context.Entry();
    return {context.Node(), entry != nullptr ? entry->Identity : 0};
}

ValueCacheEntry* ValueCacheLookup(ValueCache* cache, const ValueCacheKey& key,
                                  const UNICODE_STRING& valueName) {
    const GuardedMutexGuard guard(*cache->Lock);
    ValueCacheEntry* const ring = key.Identity != 0 ? FindRing(*cache, key) : nullptr;
    ValueCacheEntry* const entry = ring != nullptr ? FindInRing(ring, valueName) : nullptr;
    if (entry == nullptr) {
        ++cache->Misses;
        return nullptr;
    }
    ++cache->Hits;
    ++entry->UseCount;
    MoveToTail(cache->BusyList, entry->AgeLinks);
    return entry;
}

void ValueCacheRelease(ValueCache* cache, ValueCacheEntry* entry, bool remove) {
    const GuardedMutexGuard guard(*cache->Lock);
    if (remove) {
        SetFlags(*entry, entry->Flags | ENTRY_REMOVE);
    }
    if (--entry->UseCount != 0) {
        return;
    }
    MoveToTail(cache->IdleList, entry->AgeLinks);
    if ((entry->Flags & ENTRY_PENDING) != 0) {
        SetFlags(*entry, entry->Flags & ~ENTRY_PENDING);
        if (entry->Pending != nullptr) {
            ValueCacheApplyPending(*entry);
        }
    }
    if ((entry->Flags & ENTRY_REMOVE) != 0) {
        ValueCacheRemove(*cache, *entry);
    }
}

bool ValueCacheInsert(DriverState* state, KeyObjectContext* context,
                      const REG_SET_VALUE_KEY_INFORMATION& set, bool recorded) {
    ValueCache& cache = *context->ProcessContext->ValueCachePointer();
    const ValueCacheKey key = CacheKeyOf(*context);
    NewEntryContents contents;
    if (key.Identity == 0 || !CopyName(*set.ValueName, contents) ||
        !CopyData(set, CapturedSize(*state, set.DataSize), contents)) {
        return false;
    }
    const GuardedMutexGuard guard(*cache.Lock);
    if (IsListEmpty(&cache.FreeList) && !Evict(cache)) {
        ++cache.Full;
        return false;
    }
    ValueCacheEntry& entry =
        *CONTAINING_RECORD(RemoveHeadList(&cache.FreeList), ValueCacheEntry, FreeLinks);
    entry.Key = key;
    entry.Cache = &cache;
    entry.UseCount = 0;
    SetFlags(entry, recorded ? ENTRY_RECORDED : 0);
    entry.Value.DataType = set.Type;
    entry.DataLength = set.DataSize;
    entry.Pending = nullptr;
    TakeName(entry, contents);
    TakeData(entry, contents);
    EnterRing(cache, entry);
    InsertTailList(&cache.IdleList, &entry.AgeLinks);
    return true;
}

bool ValueCacheSetPending(DriverState* state, ValueCacheEntry* entry,
                          const REG_SET_VALUE_KEY_INFORMATION& set) {
    const ULONG captured = CapturedSize(*state, set.DataSize);
    auto* const pending =
        static_cast<PendingValue*>(ExAllocateFromPagedLookasideList(&PendingLookaside));
    if (pending == nullptr) {
        return false;
    }
    *pending = {set.Type, nullptr, captured, set.DataSize};
    if (captured != 0) {
        pending->Data = ExAllocatePoolWithTag(PagedPool, captured, kCacheDataTag);
        if (pending->Data == nullptr || !CopyFromCaller(pending->Data, set.Data, captured)) {
            FreePending(pending);
            return false;
        }
    }
    const GuardedMutexGuard guard(*entry->Cache->Lock);
    SetFlags(*entry, entry->Flags | ENTRY_PENDING);
    if (entry->Pending != nullptr) {
        FreePending(entry->Pending);
    }
    entry->Pending = pending;
    return true;
}

}  // namespace zpregflt
