// Interlocked singly linked lists.
//
// The header's first word counts entries in its low 16 bits and changes of the list above; the
// second is the first entry's address, whose lowest bit locks the list. The lock is held for a few
// instructions. An entry is looked into only while the list is locked, so no entry can be popped,
// freed or pushed again under a reader.
#include <wdm.h>

#include "platform/kernel/futex.h"

namespace {

constexpr ULONGLONG kLocked = 1;
constexpr ULONGLONG kOneEntry = 1;
constexpr ULONGLONG kOneChange = 0x10000;

/// Locks the list for its lifetime.
class ListLock {
public:
    explicit ListLock(SLIST_HEADER& head) : head_(head) {
        for (int spins = 1;; ++spins) {
            first_ = __atomic_fetch_or(&head_.Region, kLocked, __ATOMIC_ACQUIRE);
            if ((first_ & kLocked) == 0) return;
            while ((__atomic_load_n(&head_.Region, __ATOMIC_RELAXED) & kLocked) != 0) {
                platform::SpinPause();
                // The holder was preempted.
                if (++spins % platform::kSpinsBeforeParking == 0) platform::YieldProcessor();
            }
        }
    }
    ~ListLock() { __atomic_store_n(&head_.Region, first_, __ATOMIC_RELEASE); }
    ListLock(const ListLock&) = delete;
    ListLock& operator=(const ListLock&) = delete;

    PSLIST_ENTRY First() const { return reinterpret_cast<PSLIST_ENTRY>(first_); }
    /// The first entry from when the lock is released; `change` is added to the depth.
    void SetFirst(PSLIST_ENTRY entry, ULONGLONG change) {
        first_ = reinterpret_cast<ULONGLONG>(entry);
        const ULONGLONG depth = __atomic_load_n(&head_.Alignment, __ATOMIC_RELAXED);
        __atomic_store_n(&head_.Alignment, depth + change + kOneChange, __ATOMIC_RELAXED);
    }

private:
    SLIST_HEADER& head_;
    ULONGLONG first_;
};

}  // namespace

extern "C" {

void NTAPI InitializeSListHead(PSLIST_HEADER head) {
    head->Alignment = 0;
    head->Region = 0;
}

PSLIST_ENTRY NTAPI ExpInterlockedPopEntrySList(PSLIST_HEADER head) {
    if (QueryDepthSList(head) == 0) return nullptr;
    ListLock lock(*head);
    const PSLIST_ENTRY entry = lock.First();
    if (entry != nullptr) lock.SetFirst(entry->Next, 0 - kOneEntry);
    return entry;
}

PSLIST_ENTRY NTAPI ExpInterlockedPushEntrySList(PSLIST_HEADER head, PSLIST_ENTRY entry) {
    ListLock lock(*head);
    const PSLIST_ENTRY previous = lock.First();
    entry->Next = previous;
    lock.SetFirst(entry, kOneEntry);
    return previous;
}

}  // extern "C"
