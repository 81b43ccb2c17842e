// Exemption lists: entries against which processes are tested.
#pragma once

#include "supportlib/zpklib.h"

namespace zpklib {

/// Starts with no list. PASSIVE_LEVEL.
void InitializeExemptions();

}  // namespace zpklib
