// Memory that the caller of a system call names: buffers it reads from and writes to.
//
// A user caller's addresses may be bad, or go bad at any moment; a kernel caller vouches for its
// own.
#pragma once

#include <ntifs.h>

#include "platform/include/protected_access.h"
#include "platform/kernel/text.h"

#include <cstring>
#include <memory>
#include <string_view>

namespace platform {

class CallerMemory {
public:
    explicit CallerMemory(KPROCESSOR_MODE mode) : mode_(mode) {}

    /// False when a user address cannot be read or written; part may have been copied.
    bool Copy(void* to, const void* from, std::size_t size) const {
        if (size == 0) return true;
        if (mode_ != KernelMode) return PlatformCopyProtected(to, from, size);
        std::memcpy(to, from, size);
        return true;
    }
    template <typename T>
    bool Load(T& to, const T* from) const {
        return Copy(&to, from, sizeof(T));
    }
    template <typename T>
    bool Store(T* to, const T& value) const {
        return Copy(to, &value, sizeof(T));
    }
    KPROCESSOR_MODE Mode() const { return mode_; }

private:
    KPROCESSOR_MODE mode_;
};

/// A string argument, copied once so that the caller cannot change it under the operation.
class CapturedString {
public:
    CapturedString() = default;
    CapturedString(const CapturedString&) = delete;
    CapturedString& operator=(const CapturedString&) = delete;

    /// A null source is the empty string. STATUS_ACCESS_VIOLATION for a bad address,
    /// STATUS_OBJECT_NAME_INVALID for half a character.
    NTSTATUS Capture(const CallerMemory& memory, PCUNICODE_STRING source);
    /// Drops null characters at the end, as the kernel does with value names.
    void TrimNulls();

    std::u16string_view Text() const { return View(descriptor_); }
    PUNICODE_STRING Descriptor() { return &descriptor_; }

private:
    static constexpr std::size_t kInlineCharacters = 128;

    UNICODE_STRING descriptor_{};
    WCHAR inline_[kInlineCharacters];
    std::unique_ptr<WCHAR[]> large_;
};

}  // namespace platform
