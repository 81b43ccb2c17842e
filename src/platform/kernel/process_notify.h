// Process notifications: the routines that drivers register with PsSetCreateProcessNotifyRoutineEx.
#pragma once

#include "platform/kernel/process.h"

namespace platform {

/// Calls every routine for a new process, in the current thread, which counts as its creator. The
/// status is what the routines left in CreationStatus; a refusal does not keep the later routines
/// from being told.
NTSTATUS NotifyProcessStart(Process& process);
/// Calls every routine for a process that ends, in the current thread, which must be one of its.
void NotifyProcessExit(Process& process);

std::size_t ProcessNotifyRoutineCount();
/// Drops every routine without waiting for calls, after a machine was stopped.
void ForgetProcessNotifyRoutines();

}  // namespace platform
