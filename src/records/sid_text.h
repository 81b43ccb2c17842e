// Security identifiers as text, for traces.
#pragma once

#include <ntifs.h>

namespace zpregflt {

/// "S-1-5-21-...". The identifier is a valid one, as in an object's security descriptor.
class SidText {
public:
    explicit SidText(const void* sid);
    SidText(const SidText&) = delete;
    SidText& operator=(const SidText&) = delete;

    const char* Text() const { return text_; }

private:
    void Append(const char* text);
    void AppendNumber(ULONG64 number, ULONG base);

    // "S-", a revision of 3 digits, "-0x" and 12 digits, 15 times "-" and 10 digits, and a zero.
    static constexpr ULONG kLongest = 2 + 3 + 3 + 12 + SID_MAX_SUB_AUTHORITIES * 11 + 1;
    char text_[kLongest];
    ULONG length_ = 0;
};

}  // namespace zpregflt
