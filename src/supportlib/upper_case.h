// The system's upper-case table, copied when the library starts: the system's own routine may only
// be called at PASSIVE_LEVEL, while names are compared under guarded mutexes.
#pragma once

#include <wdm.h>

namespace zpklib {

/// Paged pool; one entry a UTF-16 code unit.
extern WCHAR* upperCase;

/// IRQL <= APC_LEVEL, after CopyUpperCaseTable.
inline WCHAR Upcase(WCHAR character) {
    return upperCase[static_cast<USHORT>(character)];
}

/// PASSIVE_LEVEL.
NTSTATUS CopyUpperCaseTable();
void FreeUpperCaseTable();

}  // namespace zpklib
