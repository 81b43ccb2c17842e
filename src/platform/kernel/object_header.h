// What stands in front of every object's body. For the object manager's own files.
#pragma once

#include "platform/kernel/object.h"

#include <atomic>
#include <cstdint>
#include <string>

namespace platform {

struct alignas(16) ObjectHeader {
    const ObjectType* type;
    std::atomic<long> references{1};
    std::atomic<long> handles{0};
    /// Set once, before the object can be found by it.
    std::u16string name;
    /// Last, since a heap overwrites the first words of a block that was freed: a stale pointer is
    /// then still recognised.
    std::uint32_t magic = kLive;

    static constexpr std::uint32_t kLive = 0x6A624F4B;
    static constexpr std::uint32_t kDead = 0xDEADB0D1;

    explicit ObjectHeader(const ObjectType& ofType) : type(&ofType) {}
};
static_assert(sizeof(ObjectHeader) % 16 == 0);

/// The header of `body`; stops the machine when that is no object. `routine` is for the message.
ObjectHeader& HeaderOf(void* body, const char* routine);

}  // namespace platform
