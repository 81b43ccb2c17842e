// Arithmetic on the sizes of records, whose parts a caller influences.
#pragma once

#include <ntifs.h>

namespace zpregflt {

/// Bytes behind every string in a record.
inline constexpr ULONG kTerminator = sizeof(WCHAR);

/// The size to reserve for these parts. They are summed in 64 bits, which no sum of lengths
/// overflows; a sum that 32 bits cannot hold fits into no buffer, and neither does MAXULONG.
template <typename... Parts>
constexpr ULONG RecordSize(Parts... parts) {
    const ULONG64 size = (ULONG64{0} + ... + ULONG64{parts});
    return size <= MAXULONG ? static_cast<ULONG>(size) : MAXULONG;
}
static_assert(RecordSize(ULONG{48}, MAXULONG) == MAXULONG);

constexpr ULONG64 RoundUpToFour(ULONG64 offset) {
    return (offset + 3) & ~ULONG64{3};
}

}  // namespace zpregflt
