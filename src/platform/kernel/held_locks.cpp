#include "platform/kernel/held_locks.h"

#include "platform/kernel/unseen_lock.h"
#include "platform/kernel/verifier.h"

#include <algorithm>
#include <array>
#include <cstdint>
#include <map>
#include <mutex>
#include <set>
#include <vector>

namespace platform {

namespace {

struct HeldLock {
    const void* address;
    LockKind kind;
};

constexpr unsigned kMostHeldLocks = 64;

struct HeldLocks {
    HeldLock locks[kMostHeldLocks];
    unsigned count;
    unsigned regions;
};

constinit thread_local HeldLocks held{};

const char* KindName(LockKind kind) {
    return kind == LockKind::kSpinLock ? "spin lock" : "guarded mutex";
}

bool IsHeld(const void* lock) {
    return std::any_of(held.locks, held.locks + held.count,
                       [lock](const HeldLock& entry) { return entry.address == lock; });
}

/// Which lock was acquired while which was held: a graph that must not have a circle.
class LockOrder {
public:
    /// Enters "`outer`, then `inner`"; false when the opposite order is known, directly or through
    /// other locks.
    bool Enter(const void* outer, const void* inner) {
        const std::lock_guard guard(lock_);
        if (after_[Key(outer)].contains(Key(inner))) return true;
        if (Reaches(Key(inner), Key(outer))) return false;
        after_[Key(outer)].insert(Key(inner));
        before_[Key(inner)].insert(Key(outer));
        return true;
    }

    void Forget(const void* memory, std::size_t size) {
        const std::lock_guard guard(lock_);
        DropRange(after_, before_, Key(memory), size);
        DropRange(before_, after_, Key(memory), size);
    }

    void ForgetAll() {
        const std::lock_guard guard(lock_);
        after_.clear();
        before_.clear();
    }

private:
    using Address = std::uintptr_t;
    using Edges = std::map<Address, std::set<Address>>;

    static Address Key(const void* lock) { return reinterpret_cast<Address>(lock); }

    bool Reaches(Address from, Address to) const {
        std::set<Address> seen{from};
        std::vector<Address> open{from};
        while (!open.empty()) {
            const auto edges = after_.find(open.back());
            open.pop_back();
            if (edges == after_.end()) continue;
            if (edges->second.contains(to)) return true;
            for (const Address next : edges->second) {
                if (seen.insert(next).second) open.push_back(next);
            }
        }
        return false;
    }

    static void DropRange(Edges& edges, Edges& reverse, Address first, std::size_t size) {
        auto node = edges.lower_bound(first);
        while (node != edges.end() && node->first < first + size) {
            for (const Address other : node->second) {
                const auto back = reverse.find(other);
                if (back == reverse.end()) continue;
                back->second.erase(node->first);
                if (back->second.empty()) reverse.erase(back);
            }
            node = edges.erase(node);
        }
    }

    UnseenLock lock_;
    Edges after_;
    Edges before_;
};

LockOrder& Order() {
    static LockOrder order;
    return order;
}

}  // namespace

void NTAPI CheckBeforeAcquire(const char* routine, const void* lock, LockKind kind) {
    if (held.count == 0) return;
    if (IsHeld(lock)) {
        Violation(Rule::kLockRecursion,
                  std::string(routine) + ": this thread holds the " + KindName(kind), lock);
    }
    // With every lock held, not only the last: one that was only tried for has no order yet.
    for (unsigned i = held.count; i-- > 0;) {
        const HeldLock& outer = held.locks[i];
        if (Order().Enter(outer.address, lock)) continue;
        Violation(Rule::kLockOrder,
                  std::string(routine) + ": the " + KindName(kind) + " was held before when the " +
                      KindName(outer.kind) + " that this thread holds was acquired",
                  lock);
    }
}

void NTAPI NoteAcquired(const void* lock, LockKind kind) {
    if (held.count == kMostHeldLocks) {
        Violation(Rule::kLockLeaked,
                  "a thread holds more than " + std::to_string(kMostHeldLocks) + " locks", lock);
    }
    held.locks[held.count++] = {lock, kind};
}

void NTAPI NoteReleased(const char* routine, const void* lock, LockKind kind) {
    HeldLock* const end = held.locks + held.count;
    // The last acquired is nearly always the one that is released.
    const auto found =
        std::find_if(std::reverse_iterator(end), std::reverse_iterator(held.locks),
                     [lock](const HeldLock& entry) { return entry.address == lock; });
    if (found == std::reverse_iterator(held.locks)) {
        Violation(Rule::kLockNotHeld,
                  std::string(routine) + ": this thread does not hold the " + KindName(kind), lock);
    }
    std::copy(found.base(), end, found.base() - 1);
    --held.count;
}

void NTAPI EnterRegion() {
    ++held.regions;
}

void NTAPI LeaveRegion() {
    if (held.regions == 0) {
        Violation(Rule::kLockNotHeld,
                  "KeLeaveCriticalRegion: this thread is in no critical region");
    }
    --held.regions;
}

unsigned LocksHeld() {
    return held.count + held.regions;
}

const void* InnermostLock() {
    return held.count == 0 ? nullptr : held.locks[held.count - 1].address;
}

HeldLocksMark MarkHeldLocks() {
    return {held.count, held.regions};
}

void ReturnToMark(HeldLocksMark mark) {
    held.count = std::min(held.count, mark.locks);
    held.regions = mark.regions;
}

void NTAPI ForgetLocks(const void* memory, std::size_t size) {
    Order().Forget(memory, size);
}

void ForgetAllLocks() {
    Order().ForgetAll();
}

}  // namespace platform
