// The client's requests, from the caller's context to their completion.
#pragma once

#include <wdf.h>

namespace zpregflt {

/// Runs in the sender's thread before the request is queued: lets only trusted processes through
/// and locks the output buffer of a METHOD_NEITHER request, which only that thread can reach.
void NTAPI IoInCallerContext(WDFDEVICE device, WDFREQUEST request);

/// Carries a request out; completes it unless it is a buffer request that was parked.
void NTAPI IoDeviceControl(WDFQUEUE queue, WDFREQUEST request, size_t outputLength,
                           size_t inputLength, ULONG controlCode);

/// A parked buffer request is cancelled. IRQL <= DISPATCH_LEVEL.
void NTAPI IoCanceledOnBufferQueue(WDFQUEUE queue, WDFREQUEST request);

}  // namespace zpregflt
