// Access to memory that may be unreadable or unwritable, or may become so at any moment.
//
// On Windows structured exception handling (src/windows/protected_access.cpp), on Linux a signal
// handler of the platform.
#pragma once

#include "ntdef.h"

extern "C" {

/// Copies and returns true, or returns false at the first byte that faults: what lies before it may
/// have been copied. Sizes of 1, 2, 4 and 8 bytes are read by one access and written by one.
/// IRQL <= APC_LEVEL: the memory may be paged out.
bool NTAPI PlatformCopyProtected(void* to, const void* from, SIZE_T size);

}  // extern "C"
