// Opening and closing devices, as file objects see it.
#pragma once

#include "platform/kernel/io.h"

namespace platform {

/// Counts one more open file of the device. STATUS_NO_SUCH_DEVICE while it is initializing or when
/// it or its driver is going; STATUS_ACCESS_DENIED for a second open of an exclusive device.
NTSTATUS AdmitOpen(DEVICE_OBJECT& device);
/// Ends what AdmitOpen began; tells the loader when no device of the driver is open any more.
/// Nothing of the driver may be touched afterwards. PASSIVE_LEVEL.
void EndOpen(ObjectRef<DEVICE_OBJECT> device);

}  // namespace platform
