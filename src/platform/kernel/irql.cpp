// The interrupt request level of each thread, critical regions and processors.
#include "platform/kernel/held_locks.h"
#include "platform/kernel/verifier.h"

#include <sched.h>
#include <unistd.h>

#include <algorithm>
#include <string>

namespace platform {

constinit thread_local KIRQL currentIrql = PASSIVE_LEVEL;

namespace {

[[noreturn, gnu::noinline]] void NTAPI WrongDirection(const char* routine, KIRQL level) {
    Violation(Rule::kIrqlDirection, std::string(routine) + " to " + std::to_string(level) +
                                        ", the current level is " + std::to_string(currentIrql));
}

/// Configured rather than online ones: their numbers run up to this count. Not more than a mask of
/// processors has bits.
ULONG CountProcessors() {
    constexpr long kMost = 64;
    return static_cast<ULONG>(std::clamp(sysconf(_SC_NPROCESSORS_CONF), 1L, kMost));
}

const ULONG processorCount = CountProcessors();

}  // namespace
}  // namespace platform

using namespace platform;

extern "C" {

KIRQL NTAPI KeGetCurrentIrql() {
    return currentIrql;
}

KIRQL NTAPI KfRaiseIrql(KIRQL newIrql) {
    const KIRQL old = currentIrql;
    if (newIrql < old && VerifierEnabled()) WrongDirection("KfRaiseIrql", newIrql);
    currentIrql = newIrql;
    return old;
}

void NTAPI KeLowerIrql(KIRQL oldIrql) {
    if (oldIrql > currentIrql && VerifierEnabled()) WrongDirection("KeLowerIrql", oldIrql);
    currentIrql = oldIrql;
}

// No thread of the platform gets asynchronous procedure calls: only the balance of the two counts.
void NTAPI KeEnterCriticalRegion() {
    RequireIrql("KeEnterCriticalRegion", APC_LEVEL);
    if (VerifierEnabled()) EnterRegion();
}

void NTAPI KeLeaveCriticalRegion() {
    RequireIrql("KeLeaveCriticalRegion", APC_LEVEL);
    if (VerifierEnabled()) LeaveRegion();
}

// Always below the count, whatever the host has.
ULONG NTAPI KeGetCurrentProcessorNumberEx(PVOID) {
    return static_cast<ULONG>(sched_getcpu()) % processorCount;
}

ULONG NTAPI KeQueryActiveProcessorCount(ULONG_PTR* activeProcessors) {
    constexpr ULONG kMaskBits = 64;
    if (activeProcessors != nullptr) {
        *activeProcessors = ~ULONG_PTR{0} >> (kMaskBits - processorCount);
    }
    return processorCount;
}

}  // extern "C"
