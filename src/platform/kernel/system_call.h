// The frame of a system call, as user mode makes it (Nt...) and as kernel code does (Zw...).
#pragma once

#include "platform/kernel/caller_memory.h"
#include "platform/kernel/fault_injection.h"
#include "platform/kernel/process.h"
#include "platform/kernel/syscalls.h"
#include "platform/kernel/verifier.h"

namespace platform {

/// `call` takes the caller's memory and returns the status.
template <typename Call>
NTSTATUS FromKernel(const char* routine, Call call) {
    RequireIrql(routine, PASSIVE_LEVEL);
    if (const auto fault = FailThisCall(routine)) return *fault;
    return call(CallerMemory(KernelMode));
}

template <typename Call>
NTSTATUS FromUser(const char* routine, Call call) {
    const UserModeCall userMode(routine);
    if (const auto fault = FailThisCall(routine)) return *fault;
    return call(CallerMemory(UserMode));
}

}  // namespace platform
