// Events.
//
// SignalState: 0 not signalled, 1 signalled, 2 not signalled and somebody may be parked. A waiter
// that has been parked cannot tell whether others still are, and leaves 2 where it would leave 0.
#include "platform/kernel/futex.h"
#include "platform/kernel/time.h"
#include "platform/kernel/verifier.h"

#include <string>

namespace platform {

namespace {

constexpr LONG kClear = 0;
constexpr LONG kSignalled = 1;
constexpr LONG kAwaited = 2;

constexpr UCHAR kEventSize = sizeof(KEVENT) / sizeof(LONG);

bool Replace(KEVENT& event, LONG expected, LONG value) {
    return __atomic_compare_exchange_n(&event.Header.SignalState, &expected, value, false,
                                       __ATOMIC_ACQ_REL, __ATOMIC_ACQUIRE);
}

LONG State(const KEVENT& event) {
    return __atomic_load_n(&event.Header.SignalState, __ATOMIC_ACQUIRE);
}

bool Consume(KEVENT& event, LONG clear) {
    if (event.Header.Type == NotificationEvent) return State(event) == kSignalled;
    return Replace(event, kSignalled, clear);
}

bool WaitUntil(KEVENT& event, std::int64_t deadline) {
    for (;;) {
        if (Consume(event, kAwaited)) return true;
        Replace(event, kClear, kAwaited);
        if (State(event) == kSignalled) continue;
        if (!FutexWait(&event.Header.SignalState, kAwaited, deadline)) {
            // Signalled at the last moment, perhaps for this waiter alone.
            return Consume(event, kAwaited);
        }
    }
}

void CheckEvent(const char* routine, const KEVENT* event) {
    if (!VerifierEnabled()) return;
    const bool good = event != nullptr && event->Header.Size == kEventSize &&
                      event->Header.Type <= SynchronizationEvent;
    if (!good) {
        Violation(Rule::kObjectBadReference, std::string(routine) + ": not an event", event);
    }
}

}  // namespace

}  // namespace platform

using namespace platform;

extern "C" {

void NTAPI KeInitializeEvent(PKEVENT event, EVENT_TYPE type, BOOLEAN state) {
    *event = {};
    event->Header.Type = static_cast<UCHAR>(type);
    event->Header.Size = kEventSize;
    event->Header.SignalState = state != FALSE ? kSignalled : kClear;
    InitializeListHead(&event->Header.WaitListHead);
}

LONG NTAPI KeSetEvent(PKEVENT event, LONG, BOOLEAN) {
    RequireIrql("KeSetEvent", DISPATCH_LEVEL);
    CheckEvent("KeSetEvent", event);
    const int wakes = event->Header.Type == NotificationEvent ? kWakeAll : 1;
    // A waiter may free the event as soon as it is signalled: the wake only names it.
    const LONG before =
        __atomic_exchange_n(&event->Header.SignalState, kSignalled, __ATOMIC_ACQ_REL);
    if (before == kAwaited) FutexWake(&event->Header.SignalState, wakes);
    return before == kSignalled ? 1 : 0;
}

void NTAPI KeClearEvent(PKEVENT event) {
    RequireIrql("KeClearEvent", DISPATCH_LEVEL);
    CheckEvent("KeClearEvent", event);
    // Waiters of a synchronization event may be parked behind one that was woken and finds the
    // event cleared; it marks the event awaited again.
    Replace(*event, kSignalled, kClear);
}

NTSTATUS NTAPI KeWaitForSingleObject(PVOID object, int, KPROCESSOR_MODE, BOOLEAN,
                                     PLARGE_INTEGER timeout) {
    const bool poll = timeout != nullptr && timeout->QuadPart == 0;
    RequireIrql("KeWaitForSingleObject", poll ? DISPATCH_LEVEL : APC_LEVEL);
    auto& event = *static_cast<PKEVENT>(object);
    CheckEvent("KeWaitForSingleObject", &event);
    if (Consume(event, kClear)) return STATUS_WAIT_0;
    if (poll) return STATUS_TIMEOUT;
    const std::int64_t deadline = timeout == nullptr ? kNoDeadline : MonotonicDeadline(*timeout);
    return WaitUntil(event, deadline) ? STATUS_WAIT_0 : STATUS_TIMEOUT;
}

}  // extern "C"
