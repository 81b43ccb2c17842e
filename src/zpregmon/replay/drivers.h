// The drivers that a replay loads, as the machine's loader takes them.
#pragma once

#include "platform/machine.h"

namespace zpregmon {

platform::DriverImage SupportLibraryImage();   ///< zpklib: before the other
platform::DriverImage RegistryMonitorImage();  ///< zpregflt

}  // namespace zpregmon
