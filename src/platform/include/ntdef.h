// Basic types of the 64-bit Windows kernel, with the same widths on every host.
//
// LONG and ULONG are 32 bits wide, WCHAR is one UTF-16 code unit (the whole project is built with
// -fshort-wchar where wchar_t is wider by default), pointers and handles are 64 bits wide.
#pragma once

#include <cstddef>
#include <cstdint>
#include <type_traits>

// NTAPI marks every function that crosses between kernel modules: the Microsoft x64 calling
// convention, also where the host's own convention differs.
#define NTAPI __attribute__((ms_abi))

static_assert(sizeof(wchar_t) == 2, "build with -fshort-wchar: WCHAR is a UTF-16 code unit");
static_assert(sizeof(void*) == 8, "64-bit systems only");

using VOID = void;
using PVOID = void*;
using CHAR = char;
using CCHAR = char;
using UCHAR = unsigned char;
using SHORT = short;
using USHORT = unsigned short;
using CSHORT = short;
using LONG = int;
using ULONG = unsigned int;
using LONGLONG = long long;
using ULONGLONG = unsigned long long;
using LONG64 = long long;
using ULONG64 = unsigned long long;
using LONG_PTR = std::intptr_t;
using ULONG_PTR = std::uintptr_t;
using SIZE_T = std::size_t;
using BOOLEAN = unsigned char;
using WCHAR = wchar_t;
using NTSTATUS = LONG;
using ACCESS_MASK = ULONG;
using KIRQL = UCHAR;
using KPROCESSOR_MODE = CCHAR;
using HANDLE = void*;
using DEVICE_TYPE = ULONG;
using SECURITY_INFORMATION = ULONG;

using PCHAR = char*;
using PCSTR = const char*;
using PUCHAR = UCHAR*;
using PUSHORT = USHORT*;
using PLONG = LONG*;
using PULONG = ULONG*;
using PULONG_PTR = ULONG_PTR*;
using PSIZE_T = SIZE_T*;
using PBOOLEAN = BOOLEAN*;
using PWCHAR = WCHAR*;
using PWSTR = WCHAR*;
using PCWSTR = const WCHAR*;
using PHANDLE = HANDLE*;
using PSECURITY_INFORMATION = SECURITY_INFORMATION*;
using PSECURITY_DESCRIPTOR = void*;
using PSID = void*;

static_assert(sizeof(LONG) == 4 && sizeof(ULONG) == 4 && sizeof(LONGLONG) == 8);

#ifndef TRUE
#define TRUE 1
#define FALSE 0
#endif

inline constexpr ULONG MAXULONG = 0xFFFFFFFF;

inline constexpr KPROCESSOR_MODE KernelMode = 0;
inline constexpr KPROCESSOR_MODE UserMode = 1;

inline constexpr KIRQL PASSIVE_LEVEL = 0;
inline constexpr KIRQL APC_LEVEL = 1;
inline constexpr KIRQL DISPATCH_LEVEL = 2;

constexpr bool NT_SUCCESS(NTSTATUS status) {
    return status >= 0;
}

union LARGE_INTEGER {
    struct {
        ULONG LowPart;
        LONG HighPart;
    } u;
    LONGLONG QuadPart;
};
using PLARGE_INTEGER = LARGE_INTEGER*;
static_assert(sizeof(LARGE_INTEGER) == 8);

struct GUID {
    ULONG Data1;
    USHORT Data2;
    USHORT Data3;
    UCHAR Data4[8];
};
using LPCGUID = const GUID*;
static_assert(sizeof(GUID) == 16);

struct LIST_ENTRY {
    LIST_ENTRY* Flink;
    LIST_ENTRY* Blink;
};
using PLIST_ENTRY = LIST_ENTRY*;
static_assert(sizeof(LIST_ENTRY) == 16);

/// Counted UTF-16 string. Lengths are in bytes and do not count a terminator, which need not exist.
struct UNICODE_STRING {
    USHORT Length;
    USHORT MaximumLength;
    PWSTR Buffer;
};
using PUNICODE_STRING = UNICODE_STRING*;
using PCUNICODE_STRING = const UNICODE_STRING*;
static_assert(sizeof(UNICODE_STRING) == 16 && offsetof(UNICODE_STRING, Buffer) == 8);

/// Counted 8-bit string, lengths as in UNICODE_STRING.
struct ANSI_STRING {
    USHORT Length;
    USHORT MaximumLength;
    PCHAR Buffer;
};
using PANSI_STRING = ANSI_STRING*;
using PCANSI_STRING = const ANSI_STRING*;
static_assert(sizeof(ANSI_STRING) == 16 && offsetof(ANSI_STRING, Buffer) == 8);

/// The descriptor of a string literal, for constants: the text is never written through it.
template <std::size_t Size>
constexpr UNICODE_STRING LiteralString(const WCHAR (&text)[Size]) {
    static_assert(Size * sizeof(WCHAR) <= 0xFFFF);
    return {static_cast<USHORT>((Size - 1) * sizeof(WCHAR)),
            static_cast<USHORT>(Size * sizeof(WCHAR)), const_cast<PWSTR>(text)};
}

struct OBJECT_ATTRIBUTES {
    ULONG Length;
    HANDLE RootDirectory;
    PUNICODE_STRING ObjectName;
    ULONG Attributes;
    PVOID SecurityDescriptor;
    PVOID SecurityQualityOfService;
};
using POBJECT_ATTRIBUTES = OBJECT_ATTRIBUTES*;
static_assert(sizeof(OBJECT_ATTRIBUTES) == 48 && offsetof(OBJECT_ATTRIBUTES, Attributes) == 24);

inline constexpr ULONG OBJ_INHERIT = 0x2;
inline constexpr ULONG OBJ_CASE_INSENSITIVE = 0x40;
inline constexpr ULONG OBJ_OPENIF = 0x80;
inline constexpr ULONG OBJ_OPENLINK = 0x100;
inline constexpr ULONG OBJ_KERNEL_HANDLE = 0x200;
inline constexpr ULONG OBJ_FORCE_ACCESS_CHECK = 0x400;

inline void InitializeObjectAttributes(OBJECT_ATTRIBUTES* attributes, PUNICODE_STRING name,
                                       ULONG flags, HANDLE root, PVOID securityDescriptor) {
    *attributes = {sizeof(OBJECT_ATTRIBUTES), root, name, flags, securityDescriptor, nullptr};
}

/// The structure that holds `member` at `address`.
#define CONTAINING_RECORD(address, type, member) \
    (reinterpret_cast<type*>(reinterpret_cast<char*>(address) - offsetof(type, member)))

/// A pool tag as memory shows it: MakeTag("Zkxx") reads Zkxx in a dump.
constexpr ULONG MakeTag(const char (&text)[5]) {
    return static_cast<ULONG>(static_cast<UCHAR>(text[0])) |
           static_cast<ULONG>(static_cast<UCHAR>(text[1])) << 8 |
           static_cast<ULONG>(static_cast<UCHAR>(text[2])) << 16 |
           static_cast<ULONG>(static_cast<UCHAR>(text[3])) << 24;
}
