// The images whose processes are trusted.
#pragma once

#include "supportlib/folded_text.h"

namespace zpklib {

/// Reads the TrustedImages value of the service key; without the value nothing is listed.
/// PASSIVE_LEVEL. STATUS_OBJECT_TYPE_MISMATCH: it is no REG_MULTI_SZ.
NTSTATUS ReadTrustedImages(PUNICODE_STRING serviceKey);
void FreeTrustedImages();

/// The list does not change while the library runs. IRQL <= APC_LEVEL.
bool IsTrustedImage(TextView imagePath);

}  // namespace zpklib
