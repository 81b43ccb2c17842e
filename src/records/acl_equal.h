// Comparison of access lists by what they hold, not by order.
#pragma once

#include <ntifs.h>

namespace zpregflt {

/// Whether the lists have the same number of entries and each entry of `first` is also in `second`.
/// Two equal entries of `first` may both be found in one of `second`. Revisions, sizes and order
/// play no part. A list with an entry that does not lie within it equals none. IRQL <
/// DISPATCH_LEVEL.
bool AclEqual(PACL first, PACL second);

}  // namespace zpregflt
