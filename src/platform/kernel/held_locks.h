// The verifier's knowledge of locks: which ones each thread holds, and in which order locks were
// taken.
//
// Everything here is called only while the verifier is on. Locks are told apart by address; what is
// known of an address is forgotten when a mutex is initialised there or the memory is freed.
//
// What the locks call is NTAPI like the locks themselves: a call in the other convention, even one
// that is seldom made, costs each acquisition the saving of ten vector registers.
#pragma once

#include <wdm.h>

#include <cstddef>

namespace platform {

enum class LockKind : unsigned char { kSpinLock, kGuardedMutex };

/// Before waiting for the lock: a violation if this thread holds it already, or if it was once held
/// while a lock that this thread holds now was acquired.
void NTAPI CheckBeforeAcquire(const char* routine, const void* lock, LockKind kind);
void NTAPI NoteAcquired(const void* lock, LockKind kind);
/// A violation if this thread does not hold the lock.
void NTAPI NoteReleased(const char* routine, const void* lock, LockKind kind);

void NTAPI EnterRegion();
void NTAPI LeaveRegion();

/// Locks that this thread holds and critical regions that it is in.
unsigned LocksHeld();
/// The innermost lock of those, for messages; null when there is none.
const void* InnermostLock();

/// What CatchBugcheck puts back.
struct HeldLocksMark {
    unsigned locks;
    unsigned regions;
};
HeldLocksMark MarkHeldLocks();
void ReturnToMark(HeldLocksMark mark);

/// Forgets the order of all locks that lie in this memory.
void NTAPI ForgetLocks(const void* memory, std::size_t size);
void ForgetAllLocks();

}  // namespace platform
