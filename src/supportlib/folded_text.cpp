#include "supportlib/folded_text.h"

#include "supportlib/upper_case.h"

namespace zpklib {

namespace {

constexpr ULONG kWordCharacters = 4;
constexpr ULONG64 kEach = 0x0001'0001'0001'0001;  // a number times this is it in every character

ULONG64 LoadWord(const WCHAR* text) {
    ULONG64 word;
    RtlCopyMemory(&word, text, sizeof(word));
    return word;
}

/// The last one to three characters, filled up with zeros. The text of an exemption may lie on an
/// odd address.
ULONG64 LoadTail(const WCHAR* text, ULONG count) {
    ULONG64 word = 0;
    for (ULONG i = 0; i < count; ++i) {
        USHORT character;
        RtlCopyMemory(&character, text + i, sizeof(character));
        word |= ULONG64{character} << (16 * i);
    }
    return word;
}

[[gnu::noinline]] ULONG64 UpcaseEachCharacter(ULONG64 word) {
    ULONG64 folded = 0;
    for (ULONG shift = 0; shift < 64; shift += 16) {
        const WCHAR upper = Upcase(static_cast<WCHAR>(word >> shift & 0xFFFF));
        folded |= static_cast<ULONG64>(static_cast<USHORT>(upper)) << shift;
    }
    return folded;
}

/// Four characters in upper case. ASCII takes no branch: of each 7-bit character, bit 7 of the sums
/// tells whether it is at least 'a' and whether it is beyond 'z'.
ULONG64 FoldWord(ULONG64 word) {
    if ((word & 0xFF80 * kEach) != 0) {
        return UpcaseEachCharacter(word);
    }
    const ULONG64 fromA = word + (0x80 - L'a') * kEach;
    const ULONG64 beyondZ = word + (0x7F - L'z') * kEach;
    return word ^ ((fromA & ~beyondZ & 0x80 * kEach) >> 2);
}

/// The same for hashing, cheaper: texts that are equal without regard to case stay equal, and a few
/// others become so.
ULONG64 FoldWordForHash(ULONG64 word) {
    if ((word & 0xFF80 * kEach) != 0) {
        word = UpcaseEachCharacter(word);
    }
    return word | 0x20 * kEach;
}

/// Both halves of the product, so that every bit of the factors counts in every bit.
ULONG64 Mix(ULONG64 first, ULONG64 second) {
    __extension__ using Product = unsigned __int128;
    const Product product = static_cast<Product>(first) * second;
    return static_cast<ULONG64>(product) ^ static_cast<ULONG64>(product >> 64);
}

}  // namespace

ULONG64 FoldedHash(TextView text) {
    constexpr ULONG64 kFirst = 0x9E37'79B9'7F4A'7C15;
    constexpr ULONG64 kSecond = 0x2545'F491'4F6C'DD1D;
    const WCHAR* at = text.Text;
    ULONG left = text.Length;
    ULONG64 hash = kFirst ^ left;
    for (; left >= 2 * kWordCharacters; left -= 2 * kWordCharacters) {
        hash = Mix(hash ^ FoldWordForHash(LoadWord(at)),
                   kSecond ^ FoldWordForHash(LoadWord(at + kWordCharacters)));
        at += 2 * kWordCharacters;
    }
    ULONG64 last = 0;
    if (left >= kWordCharacters) {
        last = FoldWordForHash(LoadWord(at));
        at += kWordCharacters;
        left -= kWordCharacters;
    }
    return Mix(hash ^ last, kSecond ^ FoldWordForHash(LoadTail(at, left)));
}

bool EqualFolded(TextView first, TextView second) {
    if (first.Length != second.Length) {
        return false;
    }
    ULONG at = 0;
    for (; first.Length - at >= kWordCharacters; at += kWordCharacters) {
        const ULONG64 one = LoadWord(first.Text + at);
        const ULONG64 other = LoadWord(second.Text + at);
        if (one != other && FoldWord(one) != FoldWord(other)) {
            return false;
        }
    }
    const ULONG left = first.Length - at;
    return FoldWord(LoadTail(first.Text + at, left)) == FoldWord(LoadTail(second.Text + at, left));
}

bool EqualFolded(TextView first, const ANSI_STRING& second) {
    if (first.Length != second.Length) {
        return false;
    }
    for (ULONG i = 0; i < first.Length; ++i) {
        const WCHAR wide = static_cast<UCHAR>(second.Buffer[i]);
        if (Upcase(first.Text[i]) != Upcase(wide)) {
            return false;
        }
    }
    return true;
}

TextView LastComponent(TextView path) {
    ULONG start = path.Length;
    while (start != 0 && path.Text[start - 1] != L'\\') {
        --start;
    }
    return path.From(start);
}

bool EndsWithPath(TextView path, TextView end) {
    if (end.Length == 0 || end.Length > path.Length) {
        return false;
    }
    const ULONG start = path.Length - end.Length;
    const bool atComponent = start == 0 || end.Text[0] == L'\\' || path.Text[start - 1] == L'\\';
    return atComponent && EqualFolded(path.From(start), end);
}

}  // namespace zpklib
