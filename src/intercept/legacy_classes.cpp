#include "intercept/legacy_classes.h"

namespace zpregflt {

bool NTAPI HaltOnLegacyClass(PVOID notification, DriverState* state) {
    KeBugCheckEx(kLegacyClassBugcheck, reinterpret_cast<ULONG_PTR>(notification),
                 reinterpret_cast<ULONG_PTR>(state), 0, 0);
}

}  // namespace zpregflt
