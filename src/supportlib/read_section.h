// Reading shared structures without a lock.
//
// Readers find things through published pointers inside a ReadSection. A writer, under its own
// mutex, first unlinks what it wants to free, so that no reader can newly find it; then it calls
// WaitForReaders without the mutex, after which no reader that might have found it is left; then it
// frees. A section takes a slot for itself, as a rule that of its processor, so that readers on
// different processors share no written cache line.
//
// Why waiting is enough: a reader takes its slot (a full barrier) before it loads the first
// pointer, a writer unlinks before the full barrier with which WaitForReaders begins. So either the
// reader sees the unlinked state, or the writer sees the slot taken.
#pragma once

#include <wdm.h>

namespace zpklib {

/// More than readers that are interrupted inside their sections at one time, as a rule; when there
/// are none left, a reader waits for another one to end.
inline constexpr ULONG kReaderSlots = 256;

struct alignas(64) ReaderSlot {
    volatile LONG Sequence;  ///< odd while taken; counts on with every taking and leaving
};

extern ReaderSlot readerSlots[kReaderSlots];

/// Keeps what the reader finds from being freed. IRQL <= APC_LEVEL. Inside, a thread does not wait
/// for a mutex of the library, nor for readers; sections nest.
class [[nodiscard]] ReadSection {
public:
    ReadSection() {
        // A thread that is suspended inside would keep every writer waiting until it goes on.
        KeEnterCriticalRegion();
        for (ULONG slot = KeGetCurrentProcessorNumberEx(nullptr);; ++slot) {
            sequence_ = &readerSlots[slot % kReaderSlots].Sequence;
            const LONG left = ReadNoFence(sequence_);
            // Another reader may have been interrupted here and still be inside.
            if (left % 2 == 0 && InterlockedCompareExchange(sequence_, Next(left), left) == left) {
                taken_ = Next(left);
                return;
            }
        }
    }
    /// Nobody else writes to a taken slot.
    ~ReadSection() {
        WriteRelease(sequence_, Next(taken_));
        KeLeaveCriticalRegion();
    }
    ReadSection(const ReadSection&) = delete;
    ReadSection& operator=(const ReadSection&) = delete;

private:
    static LONG Next(LONG sequence) { return static_cast<LONG>(static_cast<ULONG>(sequence) + 1); }

    volatile LONG* sequence_;
    LONG taken_;
};

/// Returns when every section that was open at the call has ended. PASSIVE_LEVEL, no mutex held,
/// not inside a section.
void WaitForReaders();

}  // namespace zpklib
