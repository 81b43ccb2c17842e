// The settings that the driver takes from the registry when it is loaded.
#pragma once

#include <ntifs.h>

namespace zpregflt {

/// Reads every setting below State.ParametersKey into State; a setting that cannot be read has its
/// default. Does nothing without a Parameters key. PASSIVE_LEVEL, before any reader of the settings
/// exists.
void ReadParameters();

/// Opens the service key's Parameters subkey into State.ParametersKey if there is one.
void OpenParametersKey(PUNICODE_STRING registryPath);

}  // namespace zpregflt
