#include "supportlib/read_section.h"

namespace zpklib {

constinit ReaderSlot readerSlots[kReaderSlots] = {};
constinit volatile LONG readerPhase = 0;

namespace {

constexpr int kPollsBeforeSleep = 1000;

void WaitUntilZero(const volatile LONG* counter) {
    for (int polls = 0; ReadAcquire(counter) != 0; ++polls) {
        if (polls < kPollsBeforeSleep) {
            __builtin_ia32_pause();
            continue;
        }
        LARGE_INTEGER interval;
        interval.QuadPart = -10'000;  // one millisecond from now
        KeDelayExecutionThread(KernelMode, FALSE, &interval);
    }
}

}  // namespace

void WaitForReaders() {
    // Both phases have to be seen empty: a reader may be counted in either, since it may have read
    // the phase long before it was counted. New readers are sent to the phase that is not waited
    // for, so that they cannot keep the writer waiting. Writers that wait at the same time may undo
    // each other's choice; that can only delay them.
    for (LONG phase = 0; phase < 2; ++phase) {
        InterlockedExchange(&readerPhase, 1 - phase);
        for (const ReaderSlot& slot : readerSlots) {
            WaitUntilZero(&slot.Inside[phase]);
        }
    }
}

}  // namespace zpklib
