// Reading memory that a caller supplied: it may be unreadable, and may change while it is read.
//
// A fault is reported, not raised. What is read is what counts: a length is read once, and that one
// value sizes and bounds the copy.
#pragma once

#include <ntifs.h>

namespace zpregflt {

/// Copies `size` bytes; false when reading faults, `to` then holds anything. IRQL <= APC_LEVEL.
bool CopyFromCaller(PVOID to, const void* from, SIZE_T size);

/// Whether all `size` bytes lie where user programs have their memory. A fault on a system address
/// is not reported but stops the machine: a pointer that a program can change is followed only
/// there.
bool IsUserMemory(const void* start, SIZE_T size);

/// Copies `size` bytes and returns their number: 0 when reading faults.
inline ULONG CopyOrNothing(PVOID to, const void* from, ULONG size) {
    return CopyFromCaller(to, from, size) ? size : 0;
}

enum class Comparison { kEqual, kDifferent, kFault };
/// Compares the caller's `size` bytes with those at `known`.
Comparison CompareWithCaller(const void* known, const void* from, SIZE_T size);

/// Copies a counted string's characters and puts a 16-bit zero behind them; an unreadable string
/// becomes an empty one. `to` has room for the length that the caller has read once, and the zero.
bool CopyStringFromCaller(PVOID to, PCUNICODE_STRING from, USHORT length);

/// Reads a counted string's descriptor, once, and counts whole characters only; false, and `text`
/// is empty, when that faults. The characters stay the caller's.
bool ReadString(PCUNICODE_STRING from, UNICODE_STRING& text);

/// Reads one value; false when that faults.
template <typename T>
bool ReadCaller(const T* from, T& value) {
    // NOLINTNEXTLINE(bugprone-sizeof-expression): the value may be a pointer
    return CopyFromCaller(&value, from, sizeof(T));
}

}  // namespace zpregflt
