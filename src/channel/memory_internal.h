// What the files of the event buffer pool share.
#pragma once

#include "channel/memory.h"

namespace zpregflt {

inline constexpr ULONG kDescriptorTag = MakeTag("ZRfm");
inline constexpr ULONG kBootMemoryTag = MakeTag("ZRsp");
inline constexpr ULONG kDumpImageTag = MakeTag("ZrWi");

/// Bytes reserved in the buffer.
inline ULONG UsedBytes(const EventBuffer& buffer) {
    return static_cast<ULONG>(buffer.fill - buffer.base - sizeof(BufferHeader));
}

inline void SetPhase(PoolPhase phase) {
    WriteNoFence(&Pool.phase, static_cast<LONG>(phase));
}

/// Hands the contents of a boot buffer in FinishingList over to a client buffer and puts it back to
/// work, or parks it.
void MemRecycle(EventBuffer* buffer);

/// What the last release does.
void MemFinish(EventBuffer* buffer);

inline void FreeDescriptor(EventBuffer* buffer) {
    ExFreeToNPagedLookasideList(&Pool.descriptors, buffer);
}

}  // namespace zpregflt
