// Counted strings.
#include "platform/kernel/text.h"
#include "platform/kernel/verifier.h"

#include <algorithm>
#include <cstring>

using platform::RequireIrql;
using platform::View;

namespace {

constexpr USHORT kCharacter = sizeof(WCHAR);
/// The longest length that leaves room for a terminator in a counted string.
constexpr SIZE_T kLongestTerminated = 0xFFFE - kCharacter;

void Terminate(PUNICODE_STRING text) {
    if (text->Length + kCharacter <= text->MaximumLength) {
        text->Buffer[text->Length / kCharacter] = 0;
    }
}

/// Case-insensitive forms read a table that may be paged out.
void CheckCompareLevel(const char* routine, BOOLEAN caseInsensitive) {
    RequireIrql(routine, caseInsensitive != FALSE ? PASSIVE_LEVEL : DISPATCH_LEVEL);
}

int CompareExactly(std::u16string_view first, std::u16string_view second) {
    const auto [one, other] =
        std::mismatch(first.begin(), first.end(), second.begin(), second.end());
    if (one != first.end() && other != second.end()) return *one - *other;
    return static_cast<int>(first.size()) - static_cast<int>(second.size());
}

}  // namespace

extern "C" {

void NTAPI RtlInitUnicodeString(PUNICODE_STRING destination, PCWSTR source) {
    *destination = {0, 0, const_cast<PWSTR>(source)};
    if (source == nullptr) return;
    SIZE_T characters = 0;
    while (source[characters] != 0) {
        ++characters;
    }
    const SIZE_T bytes = std::min(characters * kCharacter, kLongestTerminated);
    destination->Length = static_cast<USHORT>(bytes);
    destination->MaximumLength = static_cast<USHORT>(bytes + kCharacter);
}

void NTAPI RtlCopyUnicodeString(PUNICODE_STRING destination, PCUNICODE_STRING source) {
    RequireIrql("RtlCopyUnicodeString", DISPATCH_LEVEL);
    if (source == nullptr) {
        destination->Length = 0;
        return;
    }
    destination->Length = std::min(source->Length, destination->MaximumLength);
    if (destination->Length != 0) {
        std::memmove(destination->Buffer, source->Buffer, destination->Length);
    }
    Terminate(destination);
}

LONG NTAPI RtlCompareUnicodeString(PCUNICODE_STRING first, PCUNICODE_STRING second,
                                   BOOLEAN caseInsensitive) {
    CheckCompareLevel("RtlCompareUnicodeString", caseInsensitive);
    return caseInsensitive != FALSE ? platform::CompareIgnoringCase(View(*first), View(*second))
                                    : CompareExactly(View(*first), View(*second));
}

BOOLEAN NTAPI RtlEqualUnicodeString(PCUNICODE_STRING first, PCUNICODE_STRING second,
                                    BOOLEAN caseInsensitive) {
    CheckCompareLevel("RtlEqualUnicodeString", caseInsensitive);
    const bool equal = caseInsensitive != FALSE
                           ? platform::EqualIgnoringCase(View(*first), View(*second))
                           : View(*first) == View(*second);
    return equal ? TRUE : FALSE;
}

NTSTATUS NTAPI RtlAppendUnicodeStringToString(PUNICODE_STRING destination,
                                              PCUNICODE_STRING source) {
    RequireIrql("RtlAppendUnicodeStringToString", DISPATCH_LEVEL);
    if (source == nullptr || source->Length == 0) return STATUS_SUCCESS;
    if (destination->Length + source->Length > destination->MaximumLength) {
        return STATUS_BUFFER_TOO_SMALL;
    }
    std::memmove(destination->Buffer + destination->Length / kCharacter, source->Buffer,
                 source->Length);
    destination->Length = static_cast<USHORT>(destination->Length + source->Length);
    Terminate(destination);
    return STATUS_SUCCESS;
}

SIZE_T NTAPI RtlCompareMemory(const void* first, const void* second, SIZE_T length) {
    const auto* const one = static_cast<const unsigned char*>(first);
    const auto* const other = static_cast<const unsigned char*>(second);
    return static_cast<SIZE_T>(std::mismatch(one, one + length, other).first - one);
}

}  // extern "C"
