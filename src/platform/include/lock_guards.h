// Scope guards for the kernel's locks: one for each kind.
#pragma once

#include "wdm.h"

/// Holds a guarded mutex for the guard's lifetime. IRQL <= APC_LEVEL.
class [[nodiscard]] GuardedMutexGuard {
public:
    explicit GuardedMutexGuard(KGUARDED_MUTEX& mutex) : mutex_(mutex) {
        KeAcquireGuardedMutex(&mutex_);
    }
    ~GuardedMutexGuard() { KeReleaseGuardedMutex(&mutex_); }
    GuardedMutexGuard(const GuardedMutexGuard&) = delete;
    GuardedMutexGuard& operator=(const GuardedMutexGuard&) = delete;

private:
    KGUARDED_MUTEX& mutex_;
};

/// Holds a spin lock, queued for on this stack frame, for the guard's lifetime.
/// IRQL <= DISPATCH_LEVEL; DISPATCH_LEVEL while held.
class [[nodiscard]] QueuedSpinLockGuard {
public:
    explicit QueuedSpinLockGuard(KSPIN_LOCK& lock) {
        KeAcquireInStackQueuedSpinLock(&lock, &handle_);
    }
    ~QueuedSpinLockGuard() { KeReleaseInStackQueuedSpinLock(&handle_); }
    QueuedSpinLockGuard(const QueuedSpinLockGuard&) = delete;
    QueuedSpinLockGuard& operator=(const QueuedSpinLockGuard&) = delete;

private:
    KLOCK_QUEUE_HANDLE handle_;
};
