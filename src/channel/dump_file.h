// Writing buffers to the dump file.
#pragma once

#include "channel/memory.h"

namespace zpregflt {

/// Queues a copy of the buffer's image for the dump file, if there is one. Nobody may write to the
/// buffer any more. The file is written later, at PASSIVE_LEVEL. IRQL <= DISPATCH_LEVEL. A failure
/// loses the image; the status is for the trace.
NTSTATUS MemDumpBuffer(const EventBuffer& buffer);

}  // namespace zpregflt
