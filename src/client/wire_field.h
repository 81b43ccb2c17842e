// Numbers where they lie in an event buffer.
#pragma once

#include <cstddef>
#include <cstring>
#include <span>
#include <type_traits>

namespace zpregmon {

using Bytes = std::span<const std::byte>;

/// The field at this address, which need not be aligned.
template <typename T>
T LoadField(const std::byte* at) {
    static_assert(std::is_trivially_copyable_v<T>);
    T field;
    std::memcpy(&field, at, sizeof(field));
    return field;
}

/// The field at an offset that is inside.
template <typename T>
T LoadField(Bytes bytes, std::size_t offset) {
    return LoadField<T>(bytes.data() + offset);
}

}  // namespace zpregmon
