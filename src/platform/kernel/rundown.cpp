// Run-down protection.
//
// Count: bit 0 is set once somebody waits for the release, the holders are counted above it.
#include "platform/kernel/futex.h"
#include "platform/kernel/verifier.h"

#include <cstdint>

namespace {

constexpr ULONG_PTR kRunningDown = 1;
constexpr ULONG_PTR kOneHolder = 2;

}  // namespace

using platform::RequireIrql;

extern "C" {

void NTAPI ExInitializeRundownProtection(PEX_RUNDOWN_REF reference) {
    reference->Count = 0;
}

BOOLEAN NTAPI ExAcquireRundownProtection(PEX_RUNDOWN_REF reference) {
    RequireIrql("ExAcquireRundownProtection", APC_LEVEL);
    ULONG_PTR count = __atomic_load_n(&reference->Count, __ATOMIC_RELAXED);
    do {
        if ((count & kRunningDown) != 0) return FALSE;
    } while (!__atomic_compare_exchange_n(&reference->Count, &count, count + kOneHolder, true,
                                          __ATOMIC_ACQUIRE, __ATOMIC_RELAXED));
    return TRUE;
}

void NTAPI ExReleaseRundownProtection(PEX_RUNDOWN_REF reference) {
    RequireIrql("ExReleaseRundownProtection", APC_LEVEL);
    const ULONG_PTR before = __atomic_fetch_sub(&reference->Count, kOneHolder, __ATOMIC_RELEASE);
    if (before < kOneHolder && platform::VerifierEnabled()) {
        platform::Violation(platform::Rule::kLockNotHeld,
                            "ExReleaseRundownProtection: nobody holds the protection", reference);
    }
    // The waiter may free the reference now: the wake only names it.
    if (before == (kOneHolder | kRunningDown)) {
        platform::FutexWake(&reference->Count, platform::kWakeAll);
    }
}

void NTAPI ExWaitForRundownProtectionRelease(PEX_RUNDOWN_REF reference) {
    RequireIrql("ExWaitForRundownProtectionRelease", APC_LEVEL);
    ULONG_PTR count = __atomic_or_fetch(&reference->Count, kRunningDown, __ATOMIC_ACQUIRE);
    while (count != kRunningDown) {
        platform::FutexWait(&reference->Count, static_cast<std::uint32_t>(count));
        count = __atomic_load_n(&reference->Count, __ATOMIC_ACQUIRE);
    }
}

}  // extern "C"
