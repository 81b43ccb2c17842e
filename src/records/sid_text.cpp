#include "records/sid_text.h"

namespace zpregflt {

SidText::SidText(const void* sid) {
    const SID& identifier = *static_cast<const SID*>(sid);
    ULONG64 authority = 0;
    for (const UCHAR byte : identifier.IdentifierAuthority.Value) {
        authority = authority << 8 | byte;
    }
    Append("S-");
    AppendNumber(identifier.Revision, 10);
    if (authority <= MAXULONG) {
        Append("-");
        AppendNumber(authority, 10);
    } else {
        Append("-0x");
        AppendNumber(authority, 16);
    }
    for (ULONG i = 0; i < identifier.SubAuthorityCount && i < SID_MAX_SUB_AUTHORITIES; ++i) {
        Append("-");
        AppendNumber(identifier.SubAuthority[i], 10);
    }
    text_[length_] = 0;
}

void SidText::Append(const char* text) {
    for (; *text != 0; ++text) {
        text_[length_++] = *text;
    }
}

void SidText::AppendNumber(ULONG64 number, ULONG base) {
    char digits[20];
    ULONG count = 0;
    do {
        digits[count++] = "0123456789ABCDEF"[number % base];
        number /= base;
    } while (number != 0);
    while (count != 0) {
        text_[length_++] = digits[--count];
    }
}

}  // namespace zpregflt
