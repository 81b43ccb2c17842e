#include "platform/framework/handle_table.h"

#include "platform/framework/object.h"
#include "platform/kernel/verifier.h"

#include <array>
#include <atomic>
#include <cstdint>
#include <deque>
#include <memory>
#include <mutex>

namespace platform::framework {

namespace {

// Bits of a handle, from the top: tag, generation, slot; the low four are zero like those of the
// system's own handles.
constexpr std::uint64_t kTag = 0xFD5A;
constexpr int kTagShift = 48;
constexpr int kGenerationShift = 24;
constexpr int kSlotShift = 4;
constexpr std::uint32_t kGenerationMask = 0xFFFFFF;
constexpr std::uint32_t kSlotMask = 0xFFFFF;

constexpr std::size_t kSlotsPerSegment = 1024;
constexpr std::size_t kSegments = (kSlotMask + 1) / kSlotsPerSegment;

struct Slot {
    std::atomic<Object*> object{nullptr};
    std::atomic<std::uint32_t> generation{1};
    std::atomic<ObjectKind> lastKind{};
};
using Segment = std::array<Slot, kSlotsPerSegment>;

// Segments are never given back, so that looking a stale handle up is always safe.
struct Table {
    std::array<std::atomic<Segment*>, kSegments> segments{};
    std::array<std::unique_ptr<Segment>, kSegments> owners;
    std::mutex lock;  // guards everything below, and allocation of segments
    std::deque<std::uint32_t> free;
    std::uint32_t used = 0;
};

Table& TheTable() {
    static Table& table = *new Table;
    return table;
}

Slot* SlotAt(std::uint32_t number) {
    Segment* segment =
        TheTable().segments[number / kSlotsPerSegment].load(std::memory_order_acquire);
    return segment == nullptr ? nullptr : &(*segment)[number % kSlotsPerSegment];
}

struct Parts {
    std::uint32_t slot;
    std::uint32_t generation;
};

bool Decode(const void* handle, Parts& parts) {
    const auto bits = reinterpret_cast<std::uint64_t>(handle);
    if (bits >> kTagShift != kTag || (bits & ((1U << kSlotShift) - 1)) != 0) return false;
    parts.slot = static_cast<std::uint32_t>(bits >> kSlotShift) & kSlotMask;
    parts.generation = static_cast<std::uint32_t>(bits >> kGenerationShift) & kGenerationMask;
    return true;
}

void* Encode(std::uint32_t slot, std::uint32_t generation) {
    return reinterpret_cast<void*>(kTag << kTagShift |
                                   static_cast<std::uint64_t>(generation) << kGenerationShift |
                                   static_cast<std::uint64_t>(slot) << kSlotShift);
}

/// A slot nobody uses. The longest unused one comes first: generations then last longest. Called
/// with the table's lock.
bool TakeSlot(Table& table, std::uint32_t& number) {
    if (!table.free.empty()) {
        number = table.free.front();
        table.free.pop_front();
        return true;
    }
    if (table.used > kSlotMask) return false;
    number = table.used++;
    const std::size_t segment = number / kSlotsPerSegment;
    if (table.owners[segment] == nullptr) {
        table.owners[segment] = std::make_unique<Segment>();
        table.segments[segment].store(table.owners[segment].get(), std::memory_order_release);
    }
    return true;
}

}  // namespace

void* AllocateHandle(Object& object) {
    Table& table = TheTable();
    std::uint32_t number = 0;
    bool taken = false;
    {
        std::scoped_lock guard(table.lock);
        taken = TakeSlot(table, number);
    }
    if (!taken) {
        StopMachine({kFrameworkBugcheck, {}, "more than a million framework objects are alive"});
    }
    Slot& slot = *SlotAt(number);
    slot.lastKind.store(object.Kind(), std::memory_order_relaxed);
    slot.object.store(&object, std::memory_order_release);
    return Encode(number, slot.generation.load(std::memory_order_relaxed));
}

void FreeHandle(void* handle) {
    Parts parts{};
    Decode(handle, parts);
    Slot& slot = *SlotAt(parts.slot);
    slot.object.store(nullptr, std::memory_order_release);
    slot.generation.store((parts.generation + 1) & kGenerationMask, std::memory_order_release);
    Table& table = TheTable();
    std::scoped_lock guard(table.lock);
    table.free.push_back(parts.slot);
}

Object* FindObject(const void* handle) {
    Parts parts{};
    if (!Decode(handle, parts)) return nullptr;
    Slot* slot = SlotAt(parts.slot);
    if (slot == nullptr || slot->generation.load(std::memory_order_acquire) != parts.generation) {
        return nullptr;
    }
    return slot->object.load(std::memory_order_acquire);
}

StaleHandle DescribeStale(const void* handle) {
    Parts parts{};
    if (!Decode(handle, parts)) return {};
    Slot* slot = SlotAt(parts.slot);
    if (slot == nullptr) return {};
    const std::uint32_t generation = slot->generation.load(std::memory_order_acquire);
    const bool unused = slot->object.load(std::memory_order_acquire) == nullptr;
    StaleHandle stale;
    stale.wasHandle = parts.generation < generation;
    stale.kindKnown = unused && ((parts.generation + 1) & kGenerationMask) == generation;
    stale.kind = slot->lastKind.load(std::memory_order_relaxed);
    return stale;
}

std::string ListObjects(const Binding& binding) {
    Table& table = TheTable();
    std::scoped_lock guard(table.lock);
    std::string lines;
    for (std::uint32_t number = 0; number < table.used; ++number) {
        Object* object = SlotAt(number)->object.load(std::memory_order_acquire);
        if (object != nullptr && &object->Owner() == &binding) {
            lines += "\n  " + object->Describe();
        }
    }
    return lines;
}

}  // namespace platform::framework
