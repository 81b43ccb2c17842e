// Context blocks of key trees: the client's block with a hidden header in front.
#pragma once

#include "supportlib/zpklib.h"

namespace zpklib {

/// A block of the tree's configuration with one reference, or null. Any IRQL that the pool type
/// allows.
PVOID AllocateKeyContext(const KeyTreeConfig& config);
void ReferenceKeyContext(PVOID context);
/// The last reference frees the block.
void ReleaseKeyContext(PVOID context);

}  // namespace zpklib
