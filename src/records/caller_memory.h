// Reading memory that a caller supplied: it may be unreadable, and may change while it is read.
//
// A fault is reported, not raised. What is read is what counts: a length is read once, and that one
// value sizes and bounds the copy.
#pragma once

#include <ntifs.h>

namespace zpregflt {

/// Copies `size` bytes; false when reading faults, `to` then holds anything. IRQL <= APC_LEVEL.
bool CopyFromCaller(PVOID to, const void* from, SIZE_T size);

enum class Comparison { kEqual, kDifferent, kFault };
/// Compares the caller's `size` bytes with those at `known`.
Comparison CompareWithCaller(const void* known, const void* from, SIZE_T size);

/// Copies a counted string's characters and puts a 16-bit zero behind them; an unreadable string
/// becomes an empty one. `to` has room for the length that the caller has read once, and the zero.
bool CopyStringFromCaller(PVOID to, PCUNICODE_STRING from, USHORT length);

/// Reads one value; false when that faults.
template <typename T>
bool ReadCaller(const T* from, T& value) {
    return CopyFromCaller(&value, from, sizeof(T));
}

}  // namespace zpregflt
