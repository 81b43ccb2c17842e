// In-stack queued spin locks, as ticket locks in the lock's eight bytes.
//
// An uncontended acquisition is one locked addition, a release one plain store. A waiter spins a
// few microseconds and then parks: the host can preempt the holder, or the waiter whose turn it is.
// A releaser that saw waiters wakes the next one's channel. It looks for waiters before it stores,
// because the next holder may free the lock right after; who queues up in between and parks at once
// is not woken, and finds out when its park's time is up.
#include "platform/kernel/spin_lock.h"

#include "platform/kernel/futex.h"
#include "platform/kernel/held_locks.h"
#include "platform/kernel/verifier.h"

#include <array>
#include <atomic>
#include <bit>
#include <cstdint>
#include <string>

namespace platform {

namespace {

using Ticket = std::uint32_t;

static_assert(std::endian::native == std::endian::little);

/// Low half: the next ticket to be drawn.
Ticket* Next(PKSPIN_LOCK lock) {
    return reinterpret_cast<Ticket*>(lock);
}
/// High half: the ticket that holds the lock, or will hold it once drawn. Only the holder writes
/// it.
Ticket* Serving(PKSPIN_LOCK lock) {
    return reinterpret_cast<Ticket*>(lock) + 1;
}

std::uint32_t Channel(Ticket ticket) {
    return std::uint32_t{1} << (ticket % 32);
}

constexpr std::int64_t kLongestPark = 1'000'000;

constexpr std::size_t kParkingLots = 64;

/// Parked waiters of the locks that share a lot. The lots outlive every lock.
struct alignas(64) ParkingLot {
    std::atomic<int> parked{0};
};
constinit std::array<ParkingLot, kParkingLots> parkingLots{};

std::atomic<int>& ParkedAt(const KSPIN_LOCK* lock) {
    return parkingLots[(reinterpret_cast<std::uintptr_t>(lock) >> 4) % kParkingLots].parked;
}

[[gnu::noinline]] void NTAPI WaitForTurn(PKSPIN_LOCK lock, Ticket mine) {
    for (int spin = 0; spin < kSpinsBeforeParking; ++spin) {
        SpinPause();
        if (__atomic_load_n(Serving(lock), __ATOMIC_ACQUIRE) == mine) return;
    }
    std::atomic<int>& parked = ParkedAt(lock);
    parked.fetch_add(1);
    for (;;) {
        const Ticket serving = __atomic_load_n(Serving(lock), __ATOMIC_ACQUIRE);
        if (serving == mine) break;
        FutexWait(Serving(lock), serving, MonotonicNow() + kLongestPark, Channel(mine));
    }
    parked.fetch_sub(1);
}

/// After the release: the lock itself may be gone.
[[gnu::noinline]] void NTAPI WakeWaiter(PKSPIN_LOCK lock, Ticket next) {
    // A locked operation orders this after the store that released the lock; the waiter counts
    // itself before it looks at the lock again.
    if (ParkedAt(lock).fetch_add(0) != 0) FutexWake(Serving(lock), kWakeAll, Channel(next));
}

[[gnu::always_inline]] inline void Take(PKSPIN_LOCK lock, PKLOCK_QUEUE_HANDLE handle) {
    handle->LockQueue.Next = nullptr;
    handle->LockQueue.Lock = lock;
    handle->OldIrql = currentIrql;
    currentIrql = DISPATCH_LEVEL;
    const Ticket mine = __atomic_fetch_add(Next(lock), 1, __ATOMIC_RELAXED);
    if (__atomic_load_n(Serving(lock), __ATOMIC_ACQUIRE) != mine) WaitForTurn(lock, mine);
}

[[gnu::always_inline]] inline void Free(PKLOCK_QUEUE_HANDLE handle) {
    const PKSPIN_LOCK lock = handle->LockQueue.Lock;
    const Ticket next = __atomic_load_n(Serving(lock), __ATOMIC_RELAXED) + 1;
    const bool waited = __atomic_load_n(Next(lock), __ATOMIC_RELAXED) != next;
    __atomic_store_n(Serving(lock), next, __ATOMIC_RELEASE);
    currentIrql = handle->OldIrql;
    if (waited) WakeWaiter(lock, next);
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

unsigned SpinLockQueueLength(const KSPIN_LOCK& lock) {
    auto* const word = const_cast<PKSPIN_LOCK>(&lock);
    const Ticket serving = __atomic_load_n(Serving(word), __ATOMIC_ACQUIRE);
    return __atomic_load_n(Next(word), __ATOMIC_ACQUIRE) - serving;
}

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
