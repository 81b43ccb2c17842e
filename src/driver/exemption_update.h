// Changing the exemption list by a client's request.
#pragma once

#include <wdm.h>

namespace zpregflt {

/// Adds (or with `remove` removes) the entries of an ExemptionRequest chain, one at a time: when
/// one is refused, those before it stay applied. `buffer` holds at least one entry's header.
/// STATUS_INVALID_PARAMETER: malformed; otherwise the support library's status.
NTSTATUS UpdateExemptions(const void* buffer, SIZE_T length, bool remove);

}  // namespace zpregflt
