// Looking into a spin lock, for tests that must know who queues.
#pragma once

#include <wdm.h>

namespace platform {

/// Threads that hold the lock or wait for it at this moment.
unsigned SpinLockQueueLength(const KSPIN_LOCK& lock);

}  // namespace platform
