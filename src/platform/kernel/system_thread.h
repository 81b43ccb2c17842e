// Threads that kernel code starts with PsCreateSystemThread: threads of the system process, each a
// thread of the host.
#pragma once

#include "platform/kernel/process.h"

namespace platform {

/// Starts a thread; the handle to it goes where `attributes` say (OBJ_KERNEL_HANDLE).
NTSTATUS StartSystemThread(KSTART_ROUTINE* routine, void* context, ULONG attributes,
                           HANDLE* handle);

/// Started threads that have not returned yet.
std::size_t RunningSystemThreads();

}  // namespace platform
