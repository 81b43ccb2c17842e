// The library's lock and its scope guard.
//
// Lock order: the library has one mutex for processes (processes.h), one for the exemption lists
// (exemptions.cpp) and one a key tree (key_tree.h). No two are ever held together, no client
// routine is called under one, and nothing waits for readers (read_section.h) under one.
#pragma once

#include <wdm.h>

namespace zpklib {

/// Lives in nonpaged memory; initialised before first use.
class GuardedMutex {
public:
    void Initialize() { KeInitializeGuardedMutex(&mutex_); }
    void Acquire() { KeAcquireGuardedMutex(&mutex_); }
    void Release() { KeReleaseGuardedMutex(&mutex_); }

private:
    KGUARDED_MUTEX mutex_;
};

/// Holds a mutex for its lifetime. IRQL <= APC_LEVEL.
class [[nodiscard]] MutexGuard {
public:
    explicit MutexGuard(GuardedMutex& mutex) : mutex_(mutex) { mutex_.Acquire(); }
    ~MutexGuard() { mutex_.Release(); }
    MutexGuard(const MutexGuard&) = delete;
    MutexGuard& operator=(const MutexGuard&) = delete;

private:
    GuardedMutex& mutex_;
};

}  // namespace zpklib
