#include "platform/kernel/handle_table.h"

#include "platform/kernel/object_header.h"
#include "platform/kernel/verifier.h"

#include <thread>

namespace platform {

namespace {

/// What kernel handles have set in addition, so that no process's handle equals one.
constexpr std::uintptr_t kKernelBits = 0xFFFFFFFF80000000;

std::uintptr_t Value(HANDLE handle) {
    return reinterpret_cast<std::uintptr_t>(handle);
}

}  // namespace

HandleTable& KernelHandles() {
    static HandleTable table(HandleTable::Kind::kKernel);
    return table;
}

HandleTable::~HandleTable() {
    for (auto& chunk : chunks_) {
        delete chunk.load(std::memory_order_relaxed);
    }
}

HANDLE HandleTable::HandleOf(std::size_t index) const {
    const std::uintptr_t value = (index + 1) * 4;
    return reinterpret_cast<HANDLE>(kind_ == Kind::kKernel ? value | kKernelBits : value);
}

HandleTable::Slot* HandleTable::SlotOf(HANDLE handle) {
    std::uintptr_t value = Value(handle);
    if (kind_ == Kind::kKernel) {
        if ((value & kKernelBits) != kKernelBits) return nullptr;
        value &= ~kKernelBits;
    }
    const std::size_t index = value / 4 - 1;  // the two lowest bits are the caller's to use
    if (index >= kChunks * kChunkSlots) return nullptr;
    Chunk* chunk = chunks_[index / kChunkSlots].load(std::memory_order_acquire);
    return chunk == nullptr ? nullptr : &(*chunk)[index % kChunkSlots];
}

HandleTable::Slot& HandleTable::SlotAt(std::size_t index) {
    return (*chunks_[index / kChunkSlots].load(std::memory_order_relaxed))[index % kChunkSlots];
}

/// Waits until nobody else looks at the slot and returns its object, locked; 0 when it is free,
/// which is not locked.
std::uintptr_t HandleTable::Lock(Slot& slot) {
    std::uintptr_t object = slot.object.load(std::memory_order_relaxed);
    for (unsigned round = 0; object != 0;) {
        if ((object & kLocked) == 0 &&
            slot.object.compare_exchange_weak(object, object | kLocked, std::memory_order_acquire,
                                              std::memory_order_relaxed)) {
            return object;
        }
        if (++round % 64 == 0) std::this_thread::yield();
        object = slot.object.load(std::memory_order_relaxed);
    }
    return 0;
}

std::optional<std::size_t> HandleTable::TakeFreeIndex() {
    if (!free_.empty()) {
        const std::size_t index = free_.top();
        free_.pop();
        return index;
    }
    if (used_ == kChunks * kChunkSlots) return std::nullopt;
    auto& chunk = chunks_[used_ / kChunkSlots];
    if (chunk.load(std::memory_order_relaxed) == nullptr) {
        chunk.store(new Chunk, std::memory_order_release);
    }
    return used_++;
}

NTSTATUS HandleTable::Insert(void* body, ACCESS_MASK granted, HANDLE* handle) {
    ObjectHeader& header = HeaderOf(body, "CreateHandle");
    ReferenceObject(body);
    const std::lock_guard guard(lock_);
    const std::optional<std::size_t> index = TakeFreeIndex();
    if (!index) {
        DereferenceObject(body);
        return STATUS_INSUFFICIENT_RESOURCES;
    }
    header.handles.fetch_add(1, std::memory_order_relaxed);
    header.type->population.handles.fetch_add(1, std::memory_order_relaxed);
    Slot& slot = SlotAt(*index);
    slot.granted = granted;
    slot.object.store(reinterpret_cast<std::uintptr_t>(body), std::memory_order_release);
    *handle = HandleOf(*index);
    return STATUS_SUCCESS;
}

void* HandleTable::Reference(HANDLE handle, ACCESS_MASK* granted) {
    Slot* slot = SlotOf(handle);
    if (slot == nullptr) return nullptr;
    const std::uintptr_t object = Lock(*slot);
    if (object == 0) return nullptr;
    void* body = reinterpret_cast<void*>(object);
    ReferenceObject(body);
    *granted = slot->granted;
    slot->object.store(object, std::memory_order_release);
    return body;
}

bool HandleTable::Holds(void* body) {
    const auto wanted = reinterpret_cast<std::uintptr_t>(body);
    for (std::size_t index = 0; index < used_; ++index) {
        if ((SlotAt(index).object.load(std::memory_order_relaxed) & ~kLocked) == wanted) {
            return true;
        }
    }
    return false;
}

std::optional<HandleTable::Removed> HandleTable::Remove(HANDLE handle, void* body) {
    Slot* slot = SlotOf(handle);
    if (slot == nullptr) return std::nullopt;
    ObjectHeader& header = HeaderOf(body, "CloseHandle");
    const std::lock_guard guard(lock_);
    const std::uintptr_t object = Lock(*slot);
    if (object != reinterpret_cast<std::uintptr_t>(body)) {
        if (object != 0) slot->object.store(object, std::memory_order_release);
        return std::nullopt;
    }
    slot->object.store(0, std::memory_order_release);
    const bool lastOfAll = header.handles.fetch_sub(1, std::memory_order_acq_rel) == 1;
    header.type->population.handles.fetch_sub(1, std::memory_order_relaxed);
    free_.push((Value(handle) & ~kKernelBits) / 4 - 1);
    return Removed{lastOfAll || !Holds(body), lastOfAll};
}

std::vector<HANDLE> HandleTable::OpenHandles() {
    const std::lock_guard guard(lock_);
    std::vector<HANDLE> open;
    for (std::size_t index = 0; index < used_; ++index) {
        if (SlotAt(index).object.load(std::memory_order_relaxed) != 0) {
            open.push_back(HandleOf(index));
        }
    }
    return open;
}

}  // namespace platform
