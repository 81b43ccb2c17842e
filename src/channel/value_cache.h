// The per-process cache of the value data that a process last set.
//
// It holds up to 16 values and never grows: when all entries are taken, the one that has been idle
// longest makes room. An entry that an operation holds (ValueCacheLookup) is neither evicted nor
// changed; data and removal that come meanwhile wait for the last holder.
//
// Identity of a key. The cache holds no reference on the key's node in the key-name tree, so that a
// process does not keep nodes alive by what it once set; a node's address may therefore come to
// belong to another key. An entry is for a key only if the identity of the key's KeyEntry agrees
// too: that is drawn anew for every KeyEntry, a node keeps its KeyEntry as long as it lives, and a
// node at a reused address has a new one. A KeyEntry whose identity could not be drawn (0) is never
// cached.
//
// All memory is paged except each cache's mutex, so IRQL <= APC_LEVEL throughout; routines that
// allocate run at PASSIVE_LEVEL. Each cache's Lock is taken alone.
#pragma once

#include <ntifs.h>

#include "supportlib/zpklib.h"

namespace zpregflt {

struct DriverState;
struct KeyEntry;
struct KeyObjectContext;
struct ValueCache;

inline constexpr ULONG kCacheTag = MakeTag("ZkC0");
inline constexpr ULONG kCacheNameTag = MakeTag("ZkC1");
inline constexpr ULONG kCacheDataTag = MakeTag("ZkC2");
inline constexpr ULONG kCacheMutexTag = MakeTag("ZRgl");
inline constexpr ULONG kPendingValueTag = MakeTag("ZRdl");

/// Which key an entry is for.
struct ValueCacheKey {
    ZPK_NODE* Node;
    ULONG Identity;  ///< of the node's KeyEntry; 0 matches nothing

    bool operator==(const ValueCacheKey&) const = default;
};

/// The data of a successful set of a value whose entry is held, until the last holder lets go.
struct PendingValue {
    ULONG DataType;
    PVOID Data;  ///< paged, tag kCacheDataTag; null when CapturedLength is 0
    ULONG CapturedLength;
    ULONG DataLength;
};

/// The set that created the entry was recorded.
inline constexpr ULONG ENTRY_RECORDED = 0x1;
/// Remove the entry when nobody holds it any more.
inline constexpr ULONG ENTRY_REMOVE = 0x2;
/// A PendingValue waits to be applied.
inline constexpr ULONG ENTRY_PENDING = 0x4;

struct ValueCacheEntry {
    ValueCacheKey Key;
    UNICODE_STRING ValueName;  ///< in InlineName, or a block with tag kCacheNameTag
    ValueCache* Cache;
    LIST_ENTRY KeyLinks;     ///< ring of the entries with the same key
    LIST_ENTRY BucketLinks;  ///< in the bucket; linked to itself if another one represents the ring
    LIST_ENTRY AgeLinks;     ///< in IdleList or BusyList
    ULONG UseCount;
    volatile ULONG Flags;
    UCHAR InlineData[32];
    WCHAR InlineName[16];
    union {
        LIST_ENTRY FreeLinks;  ///< while the entry is free
        struct {
            ULONG DataType;
            PVOID Data;  ///< InlineData, or a block with tag kCacheDataTag
        } Value;
    };
    ULONG CapturedLength;  ///< bytes held
    ULONG DataLength;      ///< size as set
    PendingValue* Pending;

    bool HasInlineName() const { return ValueName.Buffer == InlineName; }
    bool HasInlineData() const { return Value.Data == InlineData; }
};

inline constexpr ULONG kCacheEntryCount = 16;
inline constexpr ULONG kCacheBucketCount = 16;

struct ValueCache {
    PKGUARDED_MUTEX Lock;  ///< guards everything else; from a nonpaged lookaside list
    LIST_ENTRY Buckets[kCacheBucketCount];
    LIST_ENTRY IdleList;  ///< held by nobody, the oldest first
    LIST_ENTRY FreeList;
    LIST_ENTRY BusyList;
    ValueCacheEntry Entries[kCacheEntryCount];
    ULONG64 Hits;
    ULONG64 Misses;
    ULONG64 Full;
    ULONG64 Evictions;
};

/// Driver-wide; interlocked.
struct ValueCacheTotals {
    LONG64 Hits;
    LONG64 Misses;
    LONG64 Full;
    LONG64 Evictions;
    LONG64 InlineData;
    LONG64 AllocatedData;
    LONG64 InlineNames;
    LONG64 AllocatedNames;
};
extern ValueCacheTotals CacheTotals;

/// Creates and deletes the two lookaside lists that all caches share, and clears the totals. Every
/// cache must be destroyed before the lists are deleted. PASSIVE_LEVEL.
void ValueCacheInitialize();
void ValueCacheUninitialize();
/// Traces the totals.
void ValueCacheReportTotals();

/// A new cache, or null.
ValueCache* ValueCacheCreate();
/// Frees the cache and everything in it, held entries included: a process's context is discarded
/// after the last reference to it, so nobody can come back for one.
void ValueCacheDestroy(ValueCache* cache);

/// What identifies the key of a key object that has its KeyEntry.
ValueCacheKey CacheKeyOf(const KeyObjectContext& context);
/// An identity for a new KeyEntry; 0 when they have run out.
ULONG NewKeyIdentity();

/// The entry of the value, held (ValueCacheRelease), or null. Names are compared with their case.
ValueCacheEntry* ValueCacheLookup(ValueCache* cache, const ValueCacheKey& key,
                                  const UNICODE_STRING& valueName);
/// Lets a held entry go; the last holder applies pending data and removes an entry marked so by
/// any.
void ValueCacheRelease(ValueCache* cache, ValueCacheEntry* entry, bool remove);
/// Remembers a successful set of a value that has no entry. False: no memory, every entry held, or
/// a key that cannot be told apart.
bool ValueCacheInsert(DriverState* state, KeyObjectContext* context,
                      const REG_SET_VALUE_KEY_INFORMATION& set, bool recorded);
/// Attaches the data of a successful set to an entry that the caller holds; a later one replaces
/// it. False: no memory, or unreadable data.
bool ValueCacheSetPending(DriverState* state, ValueCacheEntry* entry,
                          const REG_SET_VALUE_KEY_INFORMATION& set);

/// Checks that every entry is in exactly one list, held ones in BusyList, and that rings and
/// buckets hold exactly the entries in use; for tests. Takes the cache's Lock.
bool ValueCacheIsConsistent(ValueCache* cache);

}  // namespace zpregflt
