#include "platform/kernel/pool_registry.h"

#include "platform/kernel/address_poison.h"
#include "platform/kernel/held_locks.h"
#include "platform/kernel/pool.h"
#include "platform/kernel/unseen_lock.h"
#include "platform/kernel/verifier.h"

#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <deque>
#include <mutex>
#include <unordered_map>
#include <vector>

#if defined(__SANITIZE_THREAD__)
#include <sanitizer/tsan_interface.h>
#endif

namespace platform {

namespace {

// Who evicts a block from the quarantine comes after who freed it, and the race detector must know,
// since it does not see the lock in between.
#if defined(__SANITIZE_THREAD__)
void HandOver(void* block) {
    __tsan_release(block);
}
void TakeOver(void* block) {
    __tsan_acquire(block);
}
#else
void HandOver(void*) {}
void TakeOver(void*) {}
#endif

constexpr unsigned char kNewByte = 0xCD;
constexpr unsigned char kFreedByte = 0xDD;
constexpr unsigned char kZoneByte = 0xFD;

constexpr std::size_t kQuarantineBytes = std::size_t{1} << 20;
constexpr std::size_t kQuarantineBlocks = 1024;

struct RetiredBlock {
    void* block;
    PoolBlock facts;
};

unsigned char* Bytes(void* block) {
    return static_cast<unsigned char*>(block);
}

bool AllBytes(const unsigned char* bytes, std::size_t size, unsigned char value) {
    return std::all_of(bytes, bytes + size, [value](unsigned char byte) { return byte == value; });
}

PoolHeader* PoolHeaderOf(void* block) {
    return static_cast<PoolHeader*>(block) - 1;
}

PoolHeader ExpectedHeader(const PoolBlock& facts) {
    return {facts.size, facts.tag, static_cast<std::uint16_t>(facts.type), kVerifiedMark};
}

// The address sanitizer reports a stray access itself, at the access; zones are poisoned then.
bool ZonesIntact(void* block, const PoolBlock& facts) {
    if (kAddressSanitizer) return true;
    return *PoolHeaderOf(block) == ExpectedHeader(facts) &&
           AllBytes(Bytes(block) + facts.size, kTrailingZone, kZoneByte);
}

bool UntouchedSinceFree(const RetiredBlock& retired) {
    return kAddressSanitizer || AllBytes(Bytes(retired.block), retired.facts.size, kFreedByte);
}

void ReleaseMemory(const RetiredBlock& retired) {
    PoolHeader* const memory = PoolHeaderOf(retired.block);
    Unpoison(memory, sizeof(PoolHeader) + retired.facts.size + kTrailingZone);
    std::free(memory);
}

[[noreturn]] void Corrupted(const char* routine, const char* what, void* block,
                            const PoolBlock& facts) {
    Violation(Rule::kPoolCorrupted,
              std::string(routine) + ": a block of " + std::to_string(facts.size) +
                  " bytes with tag " + TagText(facts.tag) + " was written " + what,
              block, facts.tag);
}

enum class Finding { kGood, kUnknown, kFreedBefore, kCached, kWrongTag, kOverrun };

/// The books. Nothing here stops the machine: findings are reported when the lock is released.
class Registry {
public:
    void Enter(void* block, const PoolBlock& facts) {
        const std::lock_guard guard(lock_);
        live_[block] = facts;
    }

    bool Find(const void* block, PoolBlock& facts) {
        const std::lock_guard guard(lock_);
        const auto found = live_.find(const_cast<void*>(block));
        if (found == live_.end()) return false;
        facts = found->second;
        return true;
    }

    std::size_t Size() {
        const std::lock_guard guard(lock_);
        return live_.size();
    }

    /// Takes a good block out of the live ones.
    Finding TakeOut(void* block, std::uint32_t tag, PoolBlock& facts) {
        const std::lock_guard guard(lock_);
        const auto found = live_.find(block);
        if (found == live_.end()) return FindRetired(block, facts);
        facts = found->second;
        if (facts.cached) return Finding::kCached;
        if (tag != 0 && tag != facts.tag) return Finding::kWrongTag;
        if (!ZonesIntact(block, facts)) return Finding::kOverrun;
        live_.erase(found);
        return Finding::kGood;
    }

    /// Returns the blocks that the quarantine has no room for any more.
    std::vector<RetiredBlock> Quarantine(const RetiredBlock& retired) {
        const std::lock_guard guard(lock_);
        std::vector<RetiredBlock> evicted;
        quarantine_.push_back(retired);
        quarantinedBytes_ += retired.facts.size;
        while (quarantinedBytes_ > kQuarantineBytes || quarantine_.size() > kQuarantineBlocks) {
            evicted.push_back(quarantine_.front());
            quarantinedBytes_ -= quarantine_.front().facts.size;
            quarantine_.pop_front();
        }
        return evicted;
    }

    /// False when the block rests in a list already.
    bool SetCached(void* block, bool cached) {
        const std::lock_guard guard(lock_);
        const auto found = live_.find(block);
        if (found == live_.end()) return true;
        PoolBlock& facts = found->second;
        if (cached && facts.cached) return false;
        facts.cached = cached;
        // The list's link lies in the first bytes.
        const std::size_t skipped = std::min(facts.size, sizeof(SLIST_ENTRY));
        unsigned char* const rest = Bytes(block) + skipped;
        cached ? Poison(rest, facts.size - skipped) : Unpoison(rest, facts.size - skipped);
        return true;
    }

    /// The first live block that was written outside its bounds, then the first freed one that was
    /// written to; a null block when all are good.
    RetiredBlock FindDamage(bool& freed) {
        const std::lock_guard guard(lock_);
        freed = false;
        for (const auto& [block, facts] : live_) {
            if (!ZonesIntact(block, facts)) return {block, facts};
        }
        freed = true;
        for (const RetiredBlock& retired : quarantine_) {
            if (!UntouchedSinceFree(retired)) return retired;
        }
        return {nullptr, {}};
    }

private:
    Finding FindRetired(void* block, PoolBlock& facts) {
        for (const RetiredBlock& retired : quarantine_) {
            if (retired.block == block) {
                facts = retired.facts;
                return Finding::kFreedBefore;
            }
        }
        return Finding::kUnknown;
    }

    UnseenLock lock_;
    std::unordered_map<void*, PoolBlock> live_;
    std::deque<RetiredBlock> quarantine_;
    std::size_t quarantinedBytes_ = 0;
};

// Never destroyed: host threads may free blocks while the process exits.
Registry& Books() {
    static Registry* const registry = new Registry;
    return *registry;
}

[[noreturn]] void Report(Finding finding, const char* routine, void* block, std::uint32_t tag,
                         const PoolBlock& facts) {
    const std::string name = routine;
    switch (finding) {
        case Finding::kCached:
            Violation(Rule::kPoolDoubleFree,
                      name + ": the block with tag " + TagText(facts.tag) +
                          " was given back to its lookaside list",
                      block, facts.tag);
        case Finding::kWrongTag:
            Violation(Rule::kPoolWrongTag,
                      name + ": a block allocated with tag " + TagText(facts.tag) +
                          " is freed with tag " + TagText(tag),
                      block, facts.tag);
        case Finding::kOverrun:
            Corrupted(routine, "outside its bounds", block, facts);
        case Finding::kFreedBefore:
        case Finding::kUnknown:
        case Finding::kGood:
            break;
    }
    Violation(Rule::kPoolDoubleFree,
              name + ": the block with tag " + TagText(facts.tag) + " was freed before", block,
              facts.tag);
}

}  // namespace

void EnterBlock(void* block, const PoolBlock& facts) {
    std::memset(block, kNewByte, facts.size);
    std::memset(Bytes(block) + facts.size, kZoneByte, kTrailingZone);
    *PoolHeaderOf(block) = ExpectedHeader(facts);
    Poison(PoolHeaderOf(block), sizeof(PoolHeader));
    Poison(Bytes(block) + facts.size, kTrailingZone);
    Books().Enter(block, facts);
}

bool FindBlock(const void* block, PoolBlock& facts) {
    return Books().Find(block, facts);
}

std::size_t CountVerifiedBlocks() {
    return Books().Size();
}

bool RetireBlock(const char* routine, void* block, std::uint32_t tag, PoolBlock& facts) {
    const Finding finding = Books().TakeOut(block, tag, facts);
    if (finding == Finding::kUnknown) return false;
    if (finding != Finding::kGood) Report(finding, routine, block, tag, facts);
    ForgetLocks(block, facts.size);
    // Not under the lock, so that the race detector sees the block being written to by its freeing.
    std::memset(block, kFreedByte, facts.size);
    Poison(block, facts.size);
    HandOver(block);
    for (const RetiredBlock& retired : Books().Quarantine({block, facts})) {
        TakeOver(retired.block);
        if (!UntouchedSinceFree(retired)) {
            Corrupted(routine, "after it was freed", retired.block, retired.facts);
        }
        ReleaseMemory(retired);
    }
    return true;
}

void NTAPI NoteCached(const char* routine, void* block) {
    PoolBlock facts;
    if (!FindBlock(block, facts)) return;
    ForgetLocks(block, facts.size);
    if (!Books().SetCached(block, true)) Report(Finding::kCached, routine, block, 0, facts);
}

void NTAPI NoteTaken(void* block) {
    Books().SetCached(block, false);
}

void CheckPool() {
    if (!VerifierEnabled()) return;
    bool freed = false;
    const RetiredBlock damage = Books().FindDamage(freed);
    if (damage.block == nullptr) return;
    Corrupted("CheckPool", freed ? "after it was freed" : "outside its bounds", damage.block,
              damage.facts);
}

}  // namespace platform
