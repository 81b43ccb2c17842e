// Reading shared structures without a lock.
//
// Readers find things through published pointers inside a ReadSection. A writer, under its own
// mutex, first unlinks what it wants to free, so that no reader can newly find it; then it calls
// WaitForReaders without the mutex, after which no reader that might have found it is left; then it
// frees. A section writes only to a counter of its processor, so readers on different processors
// share no written cache line.
//
// Why waiting is enough: a reader adds to its counter (a full barrier) before it loads the first
// pointer, a writer unlinks before the full barrier with which WaitForReaders begins. So either the
// reader sees the unlinked state, or the writer sees the reader counted.
#pragma once

#include <wdm.h>

namespace zpklib {

inline constexpr ULONG kReaderSlots = 64;

/// Counters of the readers that are inside, by the phase in which they came.
struct alignas(64) ReaderSlot {
    volatile LONG Inside[2];
};

extern ReaderSlot readerSlots[kReaderSlots];
extern volatile LONG readerPhase;

/// Keeps what the reader finds from being freed. IRQL <= APC_LEVEL. Inside, a thread does not wait
/// for a mutex of the library, nor for readers; sections nest.
class [[nodiscard]] ReadSection {
public:
    ReadSection() {
        ReaderSlot& slot = readerSlots[KeGetCurrentProcessorNumberEx(nullptr) % kReaderSlots];
        // The thread may move to another processor: it leaves through the counter it came by.
        inside_ = &slot.Inside[ReadNoFence(&readerPhase)];
        InterlockedIncrement(inside_);
    }
    ~ReadSection() { InterlockedDecrement(inside_); }
    ReadSection(const ReadSection&) = delete;
    ReadSection& operator=(const ReadSection&) = delete;

private:
    volatile LONG* inside_;
};

/// Returns when every section that was open at the call has ended. PASSIVE_LEVEL, no mutex held,
/// not inside a section.
void WaitForReaders();

}  // namespace zpklib
