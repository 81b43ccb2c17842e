// Filling a caller's information buffer by the rules of the registry's query calls.
//
// A structure has a fixed part and, behind it, variable parts (name, class, data). When the fixed
// part does not fit nothing is written: STATUS_BUFFER_TOO_SMALL. A variable part that does not fit
// is cut: STATUS_BUFFER_OVERFLOW. The length that a whole answer needs is always reported.
#pragma once

#include "platform/kernel/caller_memory.h"

#include <algorithm>

namespace platform {

class InformationWriter {
public:
    InformationWriter(const CallerMemory& memory, void* buffer, ULONG length, PULONG resultLength)
        : memory_(memory),
          buffer_(static_cast<std::byte*>(buffer)),
          length_(length),
          resultLength_(resultLength) {}

    /// First, once: the part of the structure that must fit.
    void Fixed(const void* content, std::size_t size) {
        required_ = size;
        if (size > length_) {
            status_ = STATUS_BUFFER_TOO_SMALL;
        } else if (!memory_.Copy(buffer_, content, size)) {
            status_ = STATUS_ACCESS_VIOLATION;
        }
    }

    void Variable(std::size_t offset, const void* content, std::size_t size) {
        required_ = std::max(required_, offset + size);
        if (!NT_SUCCESS(status_) && status_ != STATUS_BUFFER_OVERFLOW) return;
        const std::size_t fitting = length_ > offset ? std::min(size, length_ - offset) : 0;
        if (fitting < size) status_ = STATUS_BUFFER_OVERFLOW;
        if (!memory_.Copy(buffer_ + offset, content, fitting)) status_ = STATUS_ACCESS_VIOLATION;
    }
    void Variable(std::size_t offset, std::u16string_view text) {
        Variable(offset, text.data(), text.size() * sizeof(char16_t));
    }

    /// Reports the length; the call's status.
    NTSTATUS Finish() {
        if (!memory_.Store(resultLength_, static_cast<ULONG>(required_))) {
            return STATUS_ACCESS_VIOLATION;
        }
        return status_;
    }

private:
    const CallerMemory& memory_;
    std::byte* const buffer_;
    const std::size_t length_;
    const PULONG resultLength_;
    std::size_t required_ = 0;
    NTSTATUS status_ = STATUS_SUCCESS;
};

/// Length in bytes, as information structures give it.
inline ULONG ByteLength(std::u16string_view text) {
    return static_cast<ULONG>(text.size() * sizeof(char16_t));
}

/// The offset of a part that is not there.
inline constexpr ULONG kNoOffset = ~ULONG{0};

}  // namespace platform
