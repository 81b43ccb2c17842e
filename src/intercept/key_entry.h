// Giving a key object its node in the key-name tree and the node's entry.
//
// Two threads may do this for one key object at once. Invariant: a context's KeyNode is published
// by a compare-exchange from null and KeyEntry, which belongs to that node, by another one after
// it; the loser of either releases its own reference and uses the winner's. So each field changes
// once, each published reference is owned by the context, and KeyEntry is never set without
// KeyNode. A node's entry never changes once it has one, so the entry that two threads find for one
// node is the same.
#pragma once

#include <ntifs.h>

#include "intercept/contexts.h"

namespace zpregflt {

struct DriverState;

/// Finds or makes the path's node and its entry. On failure KeyNode may be set, KeyEntry is not.
/// STATUS_NO_MEMORY: no entry to be had. PASSIVE_LEVEL.
NTSTATUS BindKeyEntry(const UNICODE_STRING& path, DriverState* state, KeyObjectContext* context);

/// Sets KeyNode and KeyEntry of a key object that has no entry, from the node it has, or from its
/// path (see BuildKeyPath). PASSIVE_LEVEL.
NTSTATUS EnsureKeyEntry(PUNICODE_STRING name, PVOID object, DriverState* state,
                        KeyObjectContext* context);

}  // namespace zpregflt
