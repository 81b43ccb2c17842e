// What must hold of a value cache between any two operations, for tests to ask.
#include <lock_guards.h>

#include "channel/value_cache.h"

namespace zpregflt {

namespace {

/// A set of entries by their place in the array.
using EntrySet = ULONG;
static_assert(kCacheEntryCount < 32);

/// Adds an entry to the set; false when it is in it already, or is none of the cache's.
bool Add(EntrySet& set, const ValueCache& cache, const ValueCacheEntry& entry) {
    const auto place = static_cast<ULONG64>(&entry - cache.Entries);
    if (place >= kCacheEntryCount || (set >> place & 1) != 0) {
        return false;
    }
    set |= EntrySet{1} << place;
    return true;
}

/// Adds the idle or the busy entries; `inUse`: whether operations hold them.
bool AddAged(EntrySet& set, const ValueCache& cache, LIST_ENTRY& list, bool inUse) {
    for (PLIST_ENTRY link = list.Flink; link != &list; link = link->Flink) {
        const auto& entry = *CONTAINING_RECORD(link, ValueCacheEntry, AgeLinks);
        if ((entry.UseCount != 0) != inUse || !Add(set, cache, entry)) {
            return false;
        }
    }
    return true;
}

bool AddFree(EntrySet& set, ValueCache& cache) {
    for (PLIST_ENTRY link = cache.FreeList.Flink; link != &cache.FreeList; link = link->Flink) {
        if (!Add(set, cache, *CONTAINING_RECORD(link, ValueCacheEntry, FreeLinks))) {
            return false;
        }
    }
    return true;
}

/// Adds the members of the ring that `first` represents in the bucket of its key.
bool AddRing(EntrySet& set, const ValueCache& cache, const ValueCacheEntry& first) {
    const ValueCacheEntry* entry = &first;
    do {
        if (!(entry->Key == first.Key) || !Add(set, cache, *entry) ||
            (entry != &first && !IsListEmpty(&entry->BucketLinks))) {
            return false;
        }
        entry = CONTAINING_RECORD(entry->KeyLinks.Flink, ValueCacheEntry, KeyLinks);
    } while (entry != &first);
    return true;
}

bool HasOneRingPerKey(const ValueCacheEntry& ring, LIST_ENTRY& bucket) {
    for (PLIST_ENTRY link = bucket.Flink; link != &ring.BucketLinks; link = link->Flink) {
        if (CONTAINING_RECORD(link, ValueCacheEntry, BucketLinks)->Key == ring.Key) {
            return false;
        }
    }
    return true;
}

bool AddBuckets(EntrySet& set, ValueCache& cache) {
    for (LIST_ENTRY& bucket : cache.Buckets) {
        const auto place = static_cast<ULONG64>(&bucket - cache.Buckets);
        for (PLIST_ENTRY link = bucket.Flink; link != &bucket; link = link->Flink) {
            const auto& ring = *CONTAINING_RECORD(link, ValueCacheEntry, BucketLinks);
            if ((reinterpret_cast<ULONG_PTR>(ring.Key.Node) >> 3) % kCacheBucketCount != place ||
                !HasOneRingPerKey(ring, bucket) || !AddRing(set, cache, ring)) {
                return false;
            }
        }
    }
    return true;
}

}  // namespace

bool ValueCacheIsConsistent(ValueCache* cache) {
    const GuardedMutexGuard guard(*cache->Lock);
    EntrySet inRings = 0;
    EntrySet inLists = 0;
    return AddBuckets(inRings, *cache) && AddAged(inLists, *cache, cache->IdleList, false) &&
           AddAged(inLists, *cache, cache->BusyList, true) && inRings == inLists &&
           AddFree(inLists, *cache) && inLists == (EntrySet{1} << kCacheEntryCount) - 1;
}

}  // namespace zpregflt
