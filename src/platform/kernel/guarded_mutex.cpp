// Guarded mutexes, as newer systems have them: the level is APC_LEVEL while one is held.
//
// Count: 1 free, 0 held, -1 held and somebody may be parked.
#include "platform/kernel/futex.h"
#include "platform/kernel/held_locks.h"
#include "platform/kernel/verifier.h"

#include <cstdint>
#include <string>

namespace platform {

namespace {

constexpr LONG kFree = 1;
constexpr LONG kHeld = 0;
constexpr LONG kContended = -1;

bool TryTake(PKGUARDED_MUTEX mutex) {
    LONG expected = kFree;
    return __atomic_compare_exchange_n(&mutex->Count, &expected, kHeld, false, __ATOMIC_ACQUIRE,
                                       __ATOMIC_RELAXED);
}

[[gnu::noinline]] void NTAPI WaitAndTake(PKGUARDED_MUTEX mutex) {
    __atomic_fetch_add(&mutex->Contention, 1, __ATOMIC_RELAXED);
    for (int spin = 0; spin < kSpinsBeforeParking; ++spin) {
        SpinPause();
        if (__atomic_load_n(&mutex->Count, __ATOMIC_RELAXED) == kFree && TryTake(mutex)) return;
    }
    // Who has parked once cannot tell whether others still are, and says so.
    while (__atomic_exchange_n(&mutex->Count, kContended, __ATOMIC_ACQUIRE) != kFree) {
        FutexWait(&mutex->Count, static_cast<std::uint32_t>(kContended));
    }
}

/// The holder's bookkeeping; the saved level lies where a fast mutex has it.
void BecomeOwner(PKGUARDED_MUTEX mutex, KIRQL oldIrql) {
    mutex->Owner = &currentIrql;
    mutex->u.CombinedApcDisable = oldIrql;
}

[[gnu::always_inline]] inline void Take(PKGUARDED_MUTEX mutex) {
    const KIRQL old = currentIrql;
    currentIrql = APC_LEVEL;
    if (!TryTake(mutex)) WaitAndTake(mutex);
    BecomeOwner(mutex, old);
}

[[gnu::noinline]] void NTAPI WakeWaiter(PKGUARDED_MUTEX mutex) {
    FutexWake(&mutex->Count, 1);
}

[[gnu::always_inline]] inline void Free(PKGUARDED_MUTEX mutex) {
    const auto old = static_cast<KIRQL>(mutex->u.CombinedApcDisable);
    mutex->Owner = nullptr;
    // The mutex may be gone as soon as it is free: the wake only names it.
    const LONG count = __atomic_exchange_n(&mutex->Count, kFree, __ATOMIC_RELEASE);
    currentIrql = old;
    if (count == kContended) WakeWaiter(mutex);
}

// The verified ways stand apart: what they call would have the short ones save registers.

[[gnu::noinline]] void NTAPI TakeVerified(PKGUARDED_MUTEX mutex) {
    const char* const routine = "KeAcquireGuardedMutex";
    RequireIrql(routine, APC_LEVEL);
    CheckBeforeAcquire(routine, mutex, LockKind::kGuardedMutex);
    Take(mutex);
    NoteAcquired(mutex, LockKind::kGuardedMutex);
}

[[gnu::noinline]] void NTAPI FreeVerified(PKGUARDED_MUTEX mutex) {
    const char* const routine = "KeReleaseGuardedMutex";
    NoteReleased(routine, mutex, LockKind::kGuardedMutex);
    if (currentIrql != APC_LEVEL) {
        Violation(Rule::kIrqlDirection,
                  std::string(routine) + ": the level was changed to " +
                      std::to_string(currentIrql) + " while the mutex was held",
                  mutex);
    }
    Free(mutex);
}

}  // namespace
}  // namespace platform

using namespace platform;

extern "C" {

void NTAPI KeInitializeGuardedMutex(PKGUARDED_MUTEX mutex) {
    *mutex = {};
    mutex->Count = kFree;
    if (VerifierEnabled()) ForgetLocks(mutex, sizeof(*mutex));
}

void NTAPI KeAcquireGuardedMutex(PKGUARDED_MUTEX mutex) {
    return VerifierEnabled() ? TakeVerified(mutex) : Take(mutex);
}

BOOLEAN NTAPI KeTryToAcquireGuardedMutex(PKGUARDED_MUTEX mutex) {
    RequireIrql("KeTryToAcquireGuardedMutex", APC_LEVEL);
    if (!TryTake(mutex)) return FALSE;
    BecomeOwner(mutex, currentIrql);
    currentIrql = APC_LEVEL;
    if (VerifierEnabled()) NoteAcquired(mutex, LockKind::kGuardedMutex);
    return TRUE;
}

void NTAPI KeReleaseGuardedMutex(PKGUARDED_MUTEX mutex) {
    return VerifierEnabled() ? FreeVerified(mutex) : Free(mutex);
}

}  // extern "C"
