#include "supportlib/key_contexts.h"

#include <wdm.h>

namespace zpklib {

namespace {

/// As long as the pool's alignment, which the client's block keeps.
struct alignas(16) KeyContextHeader {
    volatile LONG References;
    ULONG PoolTag;
};

KeyContextHeader* HeaderOf(PVOID context) {
    return static_cast<KeyContextHeader*>(context) - 1;
}

}  // namespace

PVOID AllocateKeyContext(const KeyTreeConfig& config) {
    if (config.ContextSize > SIZE_T{0} - 1 - sizeof(KeyContextHeader)) {
        return nullptr;
    }
    auto* header = static_cast<KeyContextHeader*>(
        ExAllocatePoolWithTag(static_cast<POOL_TYPE>(config.PoolType),
                              sizeof(KeyContextHeader) + config.ContextSize, config.PoolTag));
    if (header == nullptr) {
        return nullptr;
    }
    header->References = 1;
    header->PoolTag = config.PoolTag;
    return header + 1;
}

void ReferenceKeyContext(PVOID context) {
    InterlockedIncrement(&HeaderOf(context)->References);
}

void ReleaseKeyContext(PVOID context) {
    KeyContextHeader* header = HeaderOf(context);
    if (InterlockedDecrement(&header->References) == 0) {
        ExFreePoolWithTag(header, header->PoolTag);
    }
}

}  // namespace zpklib

extern "C" void NTAPI ZPkDtReleaseContext(PVOID context) {
    zpklib::ReleaseKeyContext(context);
}
