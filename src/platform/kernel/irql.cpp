// The interrupt request level of each thread, and what goes with the processor it runs on.
#include "platform/kernel/held_locks.h"
#include "platform/kernel/verifier.h"

#include <sched.h>
#include <unistd.h>
#include <string>

namespace platform {

constinit thread_local KIRQL currentIrql = PASSIVE_LEVEL;

}  // namespace platform

using namespace platform;

extern "C" KIRQL NTAPI KeGetCurrentIrql() {
    return currentIrql;
}

extern "C" KIRQL NTAPI KfRaiseIrql(KIRQL newIrql) {
    const KIRQL oldIrql = currentIrql;
    if (newIrql < oldIrql && VerifierEnabled()) {
        Violation(Rule::kIrqlDirection,
                  "raised from " + std::to_string(oldIrql) + " to " + std::to_string(newIrql));
    }
    currentIrql = newIrql;
    return oldIrql;
}

extern "C" void NTAPI KeLowerIrql(KIRQL oldIrql) {
    if (oldIrql > currentIrql && VerifierEnabled()) {
        Violation(Rule::kIrqlDirection,
                  "lowered from " + std::to_string(currentIrql) + " to " + std::to_string(oldIrql));
    }
    currentIrql = oldIrql;
}

// No thread of the platform gets asynchronous procedure calls: only the balance of the two counts.
extern "C" void NTAPI KeEnterCriticalRegion() {
    RequireIrql("KeEnterCriticalRegion", APC_LEVEL);
    if (VerifierEnabled()) EnterRegion();
}

extern "C" void NTAPI KeLeaveCriticalRegion() {
    RequireIrql("KeLeaveCriticalRegion", APC_LEVEL);
    if (VerifierEnabled()) LeaveRegion();
}

extern "C" ULONG NTAPI KeGetCurrentProcessorNumberEx(PVOID) {
    return static_cast<ULONG>(sched_getcpu());
}

extern "C" ULONG NTAPI KeQueryActiveProcessorCount(ULONG_PTR* activeProcessors) {
    // Configured rather than online: numbers of processors run up to this count.
    const auto count = static_cast<ULONG>(sysconf(_SC_NPROCESSORS_CONF));
    if (activeProcessors != nullptr) {
        *activeProcessors = count >= 64 ? ~ULONG_PTR{0} : (ULONG_PTR{1} << count) - 1;
    }
    return count;
}
