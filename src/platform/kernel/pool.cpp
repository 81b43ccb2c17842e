#include "platform/kernel/pool.h"

#include "platform/kernel/address_poison.h"
#include "platform/kernel/fault_injection.h"
#include "platform/kernel/pool_registry.h"
#include "platform/kernel/pool_tags.h"
#include "platform/kernel/verifier.h"

#include <cstdlib>
#include <string>

namespace platform {

namespace {

// Larger requests fail, as they do on any machine.
constexpr std::size_t kLargestBlock = std::size_t{1} << 36;

KIRQL HighestLevel(POOL_TYPE type) {
    return type == PagedPool ? APC_LEVEL : DISPATCH_LEVEL;
}

void CheckRequest(POOL_TYPE type, std::size_t size, std::uint32_t tag) {
    const char* const routine = "ExAllocatePoolWithTag";
    if (type != NonPagedPool && type != PagedPool && type != NonPagedPoolNx) {
        Violation(Rule::kPoolBadRequest,
                  std::string(routine) + ": no such pool type: " + std::to_string(type), nullptr,
                  tag);
    }
    if (size == 0) {
        Violation(Rule::kPoolBadRequest, std::string(routine) + ": zero bytes", nullptr, tag);
    }
    if (tag == 0) Violation(Rule::kPoolBadRequest, std::string(routine) + ": no tag");
    RequireIrql(routine, HighestLevel(type));
}

/// False when the registry does not know the address.
bool FreeVerified(const char* routine, void* block, std::uint32_t tag) {
    PoolBlock facts;
    if (FindBlock(block, facts)) RequireIrql(routine, HighestLevel(facts.type));
    if (!RetireBlock(routine, block, tag, facts)) return false;
    CountFree(facts.tag, facts.size);
    return true;
}

PoolHeader* HeaderOf(void* block) {
    return static_cast<PoolHeader*>(block) - 1;
}

/// Frees a block that was allocated while the verifier was off.
void FreePlain(void* block) {
    PoolHeader* const header = HeaderOf(block);
    CountFree(header->tag, header->size);
    std::free(header);
}

}  // namespace

void* NTAPI AllocatePool(POOL_TYPE type, std::size_t size, std::uint32_t tag) {
    const bool verify = VerifierEnabled();
    if (verify) CheckRequest(type, size, tag);
    if (size > kLargestBlock) return nullptr;
    const std::size_t extra = sizeof(PoolHeader) + (verify ? kTrailingZone : 0);
    auto* const header = static_cast<PoolHeader*>(std::malloc(size + extra));
    if (header == nullptr) return nullptr;
    CountAllocation(tag, size);
    void* const block = header + 1;
    if (verify) {
        EnterBlock(block, {size, tag, type});
    } else {
        *header = {size, tag, static_cast<std::uint16_t>(type), kPlainMark};
    }
    return block;
}

void NTAPI FreePool(const char* routine, void* block, std::uint32_t tag) {
    if (!VerifierEnabled()) {
        Unpoison(HeaderOf(block), sizeof(PoolHeader));
        if (HeaderOf(block)->mark == kPlainMark) return FreePlain(block);
    }
    if (FreeVerified(routine, block, tag)) return;
    // Only while blocks are left from before the verifier was turned on is it worth asking the
    // memory before an unknown address.
    const bool maybePlain = block != nullptr && CountAllBlocks() > CountVerifiedBlocks();
    if (maybePlain && HeaderOf(block)->mark == kPlainMark) return FreePlain(block);
    Violation(Rule::kPoolDoubleFree, std::string(routine) + ": not a pool block", block, tag);
}

}  // namespace platform

extern "C" {

PVOID NTAPI ExAllocatePoolWithTag(POOL_TYPE type, SIZE_T size, ULONG tag) {
    if (platform::FailThisCall("ExAllocatePoolWithTag", tag)) return nullptr;
    return platform::AllocatePool(type, size, tag);
}

void NTAPI ExFreePoolWithTag(PVOID block, ULONG tag) {
    platform::FreePool("ExFreePoolWithTag", block, tag);
}

void NTAPI ExFreePool(PVOID block) {
    platform::FreePool("ExFreePool", block, 0);
}

}  // extern "C"
