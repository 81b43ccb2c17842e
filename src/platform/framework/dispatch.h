// The framework's dispatch routine: what happens to a request packet that arrives at a device.
#pragma once

#include <wdm.h>

namespace platform::framework {

/// For every major function. Always returns STATUS_PENDING.
NTSTATUS NTAPI Dispatch(PDEVICE_OBJECT deviceObject, PIRP irp);

}  // namespace platform::framework
