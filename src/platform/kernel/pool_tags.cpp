#include "platform/kernel/pool_tags.h"

#include "platform/kernel/verifier.h"
#include "platform/machine.h"

#include <array>
#include <atomic>

namespace platform {

namespace {

// A counter word holds blocks above bytes, so that one atomic addition counts both. Each word alone
// wraps (one thread allocates, another frees); their sum modulo 2^64 is exact as long as fewer than
// 2^24 blocks and 2^40 bytes are allocated under a tag.
constexpr unsigned kBytesBits = 40;
constexpr std::uint64_t kBytesMask = (std::uint64_t{1} << kBytesBits) - 1;

constexpr std::uint64_t Word(std::size_t size) {
    return (std::uint64_t{1} << kBytesBits) + size;
}

constexpr unsigned kShards = 4;
constexpr std::size_t kSlots = 1024;
constexpr std::uint64_t kTaken = std::uint64_t{1} << 32;

struct alignas(64) Shard {
    std::atomic<std::uint64_t> word;
};

/// One tag. Slots are taken once and keep their tag, so finding one takes no lock.
struct Slot {
    std::atomic<std::uint64_t> key;  ///< kTaken | tag; 0 while nobody's
    std::array<Shard, kShards> shards;

    std::uint64_t Sum() const {
        std::uint64_t sum = 0;
        for (const Shard& shard : shards) {
            sum += shard.word.load(std::memory_order_relaxed);
        }
        return sum;
    }
};

constinit std::array<Slot, kSlots> slots{};
constinit std::array<std::atomic<std::uint16_t>, kSlots> firstUse{};  ///< slot numbers + 1
constinit std::atomic<std::size_t> slotsUsed{0};

std::size_t FirstProbe(std::uint32_t tag) {
    return (tag * 2654435761U) >> 22;
}
static_assert(kSlots == std::size_t{1} << (32 - 22));

Slot& FindSlot(std::uint32_t tag) {
    const std::uint64_t key = kTaken | tag;
    std::size_t index = FirstProbe(tag);
    for (std::size_t probes = 0; probes < kSlots; ++probes, index = (index + 1) % kSlots) {
        Slot& slot = slots[index];
        std::uint64_t found = slot.key.load(std::memory_order_relaxed);
        if (found == key) return slot;
        if (found != 0) continue;
        if (slot.key.compare_exchange_strong(found, key, std::memory_order_relaxed)) {
            firstUse[slotsUsed.fetch_add(1)].store(static_cast<std::uint16_t>(index + 1));
            return slot;
        }
        if (found == key) return slot;
    }
    StopMachine(
        {kVerifierBugcheck, {}, "pool: more than " + std::to_string(kSlots) + " different tags"});
}

Shard& ShardOfThread(Slot& slot) {
    static constinit std::atomic<unsigned> threads{0};
    static thread_local const unsigned mine = threads.fetch_add(1) % kShards;
    return slot.shards[mine];
}

void Add(std::uint32_t tag, std::uint64_t word) {
    ShardOfThread(FindSlot(tag)).word.fetch_add(word, std::memory_order_relaxed);
}

TagUsage UsageOf(const Slot& slot) {
    const std::uint64_t sum = slot.Sum();
    return {static_cast<std::uint32_t>(slot.key.load(std::memory_order_relaxed)),
            static_cast<std::size_t>(sum >> kBytesBits),
            static_cast<std::size_t>(sum & kBytesMask)};
}

}  // namespace

void CountAllocation(std::uint32_t tag, std::size_t size) {
    Add(tag, Word(size));
}

void CountFree(std::uint32_t tag, std::size_t size) {
    Add(tag, 0 - Word(size));
}

std::size_t CountAllBlocks() {
    std::size_t blocks = 0;
    for (const TagUsage& usage : ListPoolUsage()) {
        blocks += usage.blocks;
    }
    return blocks;
}

PoolUsage QueryPoolUsage(std::uint32_t tag) {
    const TagUsage usage = UsageOf(FindSlot(tag));
    return {usage.blocks, usage.bytes};
}

std::vector<TagUsage> ListPoolUsage() {
    std::vector<TagUsage> list;
    const std::size_t used = slotsUsed.load();
    for (std::size_t i = 0; i < used; ++i) {
        const std::uint16_t slot = firstUse[i].load();
        if (slot == 0) continue;  // being entered by another thread
        const TagUsage usage = UsageOf(slots[slot - 1U]);
        if (usage.blocks != 0) list.push_back(usage);
    }
    return list;
}

}  // namespace platform
