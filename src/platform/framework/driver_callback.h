// What surrounds a call of the driver's request handlers.
#pragma once

#include "platform/kernel/verifier.h"

#include <wdm.h>

namespace platform::framework {

/// For its lifetime the thread is in a critical region, as handlers are on Windows, and the handler
/// is checked for level and locks. Above APC_LEVEL no APC comes anyway, and no region is entered.
class DriverCallback {
public:
    explicit DriverCallback(const char* name) : region_(currentIrql <= APC_LEVEL), check_(name) {}

private:
    class CriticalRegion {
    public:
        explicit CriticalRegion(bool enter) : entered_(enter) {
            if (entered_) KeEnterCriticalRegion();
        }
        ~CriticalRegion() {
            if (entered_) KeLeaveCriticalRegion();
        }
        CriticalRegion(const CriticalRegion&) = delete;
        CriticalRegion& operator=(const CriticalRegion&) = delete;

    private:
        bool entered_;
    };

    CriticalRegion region_;
    CallbackCheck check_;
};

}  // namespace platform::framework
