// A table of handles: one per process, and the kernel's own.
//
// Looking a handle up is on the road of every registry operation. It takes no lock of the table:
// each slot is locked by the lowest bit of its object pointer for as long as it takes to add a
// reference. Opening and closing take the table's mutex.
#pragma once

#include "platform/kernel/object.h"

#include <array>
#include <atomic>
#include <cstdint>
#include <functional>
#include <memory>
#include <mutex>
#include <optional>
#include <queue>
#include <vector>

namespace platform {

class HandleTable {
public:
    enum class Kind { kUser, kKernel };

    explicit HandleTable(Kind kind) : kind_(kind) {}
    /// Every handle must have been closed.
    ~HandleTable();
    HandleTable(const HandleTable&) = delete;
    HandleTable& operator=(const HandleTable&) = delete;

    /// Opens the lowest free handle; it holds a reference of its own.
    /// STATUS_INSUFFICIENT_RESOURCES when the table is full.
    NTSTATUS Insert(void* body, ACCESS_MASK granted, HANDLE* handle);

    /// The handle's object with a reference for the caller; null when there is no such handle.
    void* Reference(HANDLE handle, ACCESS_MASK* granted);

    struct Removed {
        bool lastOfTable;  ///< no other handle of this table is to the same object
        bool lastOfAll;
    };
    /// Takes the handle out if it still stands for `body`; its reference is then the caller's.
    std::optional<Removed> Remove(HANDLE handle, void* body);

    /// The handles that are open now, lowest first.
    std::vector<HANDLE> OpenHandles();

private:
    struct Slot {
        /// 0: free; otherwise the body, with kLocked set while somebody looks at the slot.
        std::atomic<std::uintptr_t> object{0};
        ACCESS_MASK granted = 0;  ///< written while the slot is free, read while it is locked
    };
    static constexpr std::uintptr_t kLocked = 1;
    static constexpr std::size_t kChunkSlots = 512;
    static constexpr std::size_t kChunks = 2048;
    using Chunk = std::array<Slot, kChunkSlots>;

    HANDLE HandleOf(std::size_t index) const;
    /// Null when the value is none of this table's.
    Slot* SlotOf(HANDLE handle);
    Slot& SlotAt(std::size_t index);
    /// Under lock_.
    std::optional<std::size_t> TakeFreeIndex();
    /// Whether any handle is to the object; under lock_.
    bool Holds(void* body);
    static std::uintptr_t Lock(Slot& slot);

    const Kind kind_;
    /// Chunks stay until the table goes, so that lookups need no lock to find a slot.
    std::array<std::atomic<Chunk*>, kChunks> chunks_{};

    std::mutex lock_;  ///< of everything below, and of filling and emptying slots
    std::priority_queue<std::size_t, std::vector<std::size_t>, std::greater<>> free_;
    std::size_t used_ = 0;  ///< slots that were ever used
};

/// The table of handles that were opened with OBJ_KERNEL_HANDLE.
HandleTable& KernelHandles();

}  // namespace platform
