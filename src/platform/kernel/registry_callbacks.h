// Registry callbacks: who is registered, and telling them of an operation before and after it.
//
// Locks: the list of registrations has a reader-writer lock; each registration has a lock for the
// object contexts attached for it, which comes after the list's. Neither is held while a callback
// runs, and no other lock is taken under them.
#pragma once

#include <ntifs.h>

#include "platform/kernel/key_object.h"

#include <atomic>
#include <cstdint>
#include <string>
#include <vector>

namespace platform {

/// One operation as callbacks see it. The pointers go into the operation's information structure
/// (REG_..._INFORMATION), which lives until the operation is over.
struct Notification {
    REG_NOTIFY_CLASS before;
    REG_NOTIFY_CLASS after;
    void* information;
    PVOID* callContext;
    PVOID* objectContext;
    /// Whose context `objectContext` gets: the operation's key, or the root of a create or open.
    KeyObject* key;
    /// Create and open: where the new key object appears. It is what the notification afterwards
    /// is about, if the operation succeeded. Null for other operations, which are about `key`.
    PVOID* result = nullptr;
    /// What a callback returns beforehand cannot stop the operation.
    bool unstoppable = false;
};

namespace callbacks_detail {
extern std::atomic<unsigned> registered;
NTSTATUS NotifyAround(const Notification& notification, NTSTATUS (*operation)(void*),
                      void* argument);
}  // namespace callbacks_detail

/// Carries out `operation`, a callable that returns NTSTATUS, with every registered callback told
/// before and after. Returns what the caller of the operation gets: the operation's status or what
/// callbacks made of it.
///
/// Beforehand the highest altitude comes first. A callback that refuses ends the matter with its
/// status; with STATUS_CALLBACK_BYPASS it has done the operation itself and the caller sees
/// success. Either way neither that callback nor those below it hear of the end. Afterwards the
/// order is reversed; STATUS_CALLBACK_BYPASS then replaces the status by ReturnStatus. The set of
/// callbacks is fixed at the start, and each stays registered until the operation is over.
template <typename Operation>
NTSTATUS NotifyAround(const Notification& notification, Operation operation) {
    if (callbacks_detail::registered.load(std::memory_order_acquire) == 0) return operation();
    return callbacks_detail::NotifyAround(
        notification, [](void* argument) { return (*static_cast<Operation*>(argument))(); },
        &operation);
}

/// The same for an operation on one key with its information structure, which has the usual
/// members.
template <typename Information, typename Operation>
NTSTATUS NotifyAround(REG_NOTIFY_CLASS before, REG_NOTIFY_CLASS after, KeyObject& key,
                      Information& information, Operation operation) {
    information.Object = &key;
    return NotifyAround(
        {before, after, &information, &information.CallContext, &information.ObjectContext, &key},
        operation);
}

/// Forgets every registration and its object contexts without a word to it, also after a bugcheck
/// in a callback.
void DropRegistryCallbacks();

}  // namespace platform
