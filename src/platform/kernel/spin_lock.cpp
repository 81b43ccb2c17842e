// In-stack queued spin locks, as exchange locks in the lock's eight bytes.
//
// They are not served in the order of arrival, which the name promises and no caller can rely on:
// unlike a processor at DISPATCH_LEVEL, a host thread that is next in line may be preempted, and
// all others would wait until the host runs it again. Here whoever runs takes a free lock.
//
// An uncontended acquisition is one locked exchange, a release one plain store. A waiter spins a
// few microseconds and then parks, as the holder may be preempted too. A releaser that saw waiters
// wakes one. It looks for waiters before it stores, because the next holder may free the lock right
// after; who comes in between and parks at once is not woken by it, but by the next release, or
// when the park's time is up.
#include "platform/kernel/futex.h"
#include "platform/kernel/held_locks.h"
#include "platform/kernel/verifier.h"

#include <bit>
#include <cstdint>
#include <string>

namespace platform {

namespace {

static_assert(std::endian::native == std::endian::little);

constexpr std::uint32_t kFree = 0;
constexpr std::uint32_t kHeld = 1;
constexpr std::int64_t kLongestPark = 1'000'000;

/// Low half: kFree or kHeld.
std::uint32_t* StateOf(PKSPIN_LOCK lock) {
    return reinterpret_cast<std::uint32_t*>(lock);
}
/// High half: how many threads have parked or are about to, and kWaking while one of them has been
/// woken and has not yet run: a second one would only find the lock taken as well.
constexpr std::uint32_t kWaking = 0x8000'0000;
std::uint32_t* ParkedAt(PKSPIN_LOCK lock) {
    return reinterpret_cast<std::uint32_t*>(lock) + 1;
}

bool TryTake(PKSPIN_LOCK lock) {
    return __atomic_exchange_n(StateOf(lock), kHeld, __ATOMIC_ACQUIRE) == kFree;
}

[[gnu::noinline]] void NTAPI WaitAndTake(PKSPIN_LOCK lock) {
    for (int spin = 0; spin < kSpinsBeforeParking; ++spin) {
        SpinPause();
        if (__atomic_load_n(StateOf(lock), __ATOMIC_RELAXED) == kFree && TryTake(lock)) return;
    }
    __atomic_fetch_add(ParkedAt(lock), 1, __ATOMIC_RELAXED);
    for (;;) {
        const bool taken = TryTake(lock);
        // Whoever was woken, some waiter has run. Only the holder sets this, so the last waiter
        // leaves it clear.
        __atomic_fetch_and(ParkedAt(lock), ~kWaking, __ATOMIC_RELAXED);
        if (taken) break;
        FutexWait(StateOf(lock), kHeld, MonotonicNow() + kLongestPark);
    }
    __atomic_fetch_sub(ParkedAt(lock), 1, __ATOMIC_RELAXED);
}

[[gnu::noinline]] void NTAPI FreeAndWake(PKSPIN_LOCK lock) {
    const std::uint32_t before = __atomic_fetch_or(ParkedAt(lock), kWaking, __ATOMIC_RELAXED);
    __atomic_store_n(StateOf(lock), kFree, __ATOMIC_RELEASE);
    // From here on the lock is only named: it may be gone.
    if ((before & kWaking) == 0) FutexWake(StateOf(lock), 1);
}

[[gnu::always_inline]] inline void Take(PKSPIN_LOCK lock, PKLOCK_QUEUE_HANDLE handle) {
    handle->LockQueue.Next = nullptr;
    handle->LockQueue.Lock = lock;
    handle->OldIrql = currentIrql;
    currentIrql = DISPATCH_LEVEL;
    if (!TryTake(lock)) WaitAndTake(lock);
}

[[gnu::always_inline]] inline void Free(PKLOCK_QUEUE_HANDLE handle) {
    const PKSPIN_LOCK lock = handle->LockQueue.Lock;
    currentIrql = handle->OldIrql;
    if (__atomic_load_n(ParkedAt(lock), __ATOMIC_RELAXED) != 0) return FreeAndWake(lock);
    __atomic_store_n(StateOf(lock), kFree, __ATOMIC_RELEASE);
}

// The verified ways stand apart: what they call would have the short ones save registers.

[[gnu::noinline]] void NTAPI TakeVerified(PKSPIN_LOCK lock, PKLOCK_QUEUE_HANDLE handle) {
    const char* const routine = "KeAcquireInStackQueuedSpinLock";
    RequireIrql(routine, DISPATCH_LEVEL);
    CheckBeforeAcquire(routine, lock, LockKind::kSpinLock);
    Take(lock, handle);
    NoteAcquired(lock, LockKind::kSpinLock);
}

[[gnu::noinline]] void NTAPI FreeVerified(PKLOCK_QUEUE_HANDLE handle) {
    const char* const routine = "KeReleaseInStackQueuedSpinLock";
    const PKSPIN_LOCK lock = handle->LockQueue.Lock;
    NoteReleased(routine, lock, LockKind::kSpinLock);
    if (currentIrql != DISPATCH_LEVEL) {
        Violation(Rule::kIrqlDirection,
                  std::string(routine) + ": the level was changed to " +
                      std::to_string(currentIrql) + " while the spin lock was held",
                  lock);
    }
    Free(handle);
}

}  // namespace
}  // namespace platform

using namespace platform;

extern "C" {

void NTAPI KeAcquireInStackQueuedSpinLock(PKSPIN_LOCK lock, PKLOCK_QUEUE_HANDLE handle) {
    return VerifierEnabled() ? TakeVerified(lock, handle) : Take(lock, handle);
}

void NTAPI KeReleaseInStackQueuedSpinLock(PKLOCK_QUEUE_HANDLE handle) {
    return VerifierEnabled() ? FreeVerified(handle) : Free(handle);
}

}  // extern "C"
