#include "supportlib/read_section.h"

namespace zpklib {

constinit ReaderSlot readerSlots[kReaderSlots] = {};

namespace {

constexpr int kPollsBeforeSleep = 1000;

/// Returns when the reader that has the slot, if any, has left it; later ones do not matter.
void WaitForReader(const ReaderSlot& slot) {
    const LONG seen = ReadAcquire(&slot.Sequence);
    if (seen % 2 == 0) {
        return;
    }
    for (int polls = 0; ReadAcquire(&slot.Sequence) == seen; ++polls) {
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
    // Between the caller's unlinking and the look at the slots there has to be a full barrier,
    // which every interlocked operation is.
    LONG barrier = 0;
    InterlockedExchange(&barrier, 1);
    for (const ReaderSlot& slot : readerSlots) {
        WaitForReader(slot);
    }
}

}  // namespace zpklib
