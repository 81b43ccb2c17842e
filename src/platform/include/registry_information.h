// The registry's access rights, options, value types and information classes.
#pragma once

#include "wdm.h"

inline constexpr ACCESS_MASK KEY_QUERY_VALUE = 0x1;
inline constexpr ACCESS_MASK KEY_SET_VALUE = 0x2;
inline constexpr ACCESS_MASK KEY_CREATE_SUB_KEY = 0x4;
inline constexpr ACCESS_MASK KEY_ENUMERATE_SUB_KEYS = 0x8;
inline constexpr ACCESS_MASK KEY_NOTIFY = 0x10;
inline constexpr ACCESS_MASK KEY_CREATE_LINK = 0x20;
inline constexpr ACCESS_MASK KEY_WOW64_64KEY = 0x100;
inline constexpr ACCESS_MASK KEY_WOW64_32KEY = 0x200;
inline constexpr ACCESS_MASK KEY_READ = 0x00020019;
inline constexpr ACCESS_MASK KEY_WRITE = 0x00020006;
inline constexpr ACCESS_MASK KEY_ALL_ACCESS = 0x000F003F;

inline constexpr ULONG REG_OPTION_VOLATILE = 0x1;
inline constexpr ULONG REG_OPTION_CREATE_LINK = 0x2;
inline constexpr ULONG REG_OPTION_BACKUP_RESTORE = 0x4;
inline constexpr ULONG REG_OPTION_OPEN_LINK = 0x8;
inline constexpr ULONG REG_CREATED_NEW_KEY = 1;
inline constexpr ULONG REG_OPENED_EXISTING_KEY = 2;

// Formats of NtSaveKeyEx and flags of NtRestoreKey.
inline constexpr ULONG REG_STANDARD_FORMAT = 1;
inline constexpr ULONG REG_LATEST_FORMAT = 2;
inline constexpr ULONG REG_NO_COMPRESSION = 4;
inline constexpr ULONG REG_WHOLE_HIVE_VOLATILE = 0x1;
inline constexpr ULONG REG_REFRESH_HIVE = 0x2;
inline constexpr ULONG REG_NO_LAZY_FLUSH = 0x4;
inline constexpr ULONG REG_FORCE_RESTORE = 0x8;

inline constexpr ULONG REG_NONE = 0;
inline constexpr ULONG REG_SZ = 1;
inline constexpr ULONG REG_EXPAND_SZ = 2;
inline constexpr ULONG REG_BINARY = 3;
inline constexpr ULONG REG_DWORD = 4;
inline constexpr ULONG REG_DWORD_BIG_ENDIAN = 5;
inline constexpr ULONG REG_LINK = 6;
inline constexpr ULONG REG_MULTI_SZ = 7;
inline constexpr ULONG REG_RESOURCE_LIST = 8;
inline constexpr ULONG REG_FULL_RESOURCE_DESCRIPTOR = 9;
inline constexpr ULONG REG_RESOURCE_REQUIREMENTS_LIST = 10;
inline constexpr ULONG REG_QWORD = 11;

enum KEY_INFORMATION_CLASS : int {
    KeyBasicInformation = 0,
    KeyNodeInformation = 1,
    KeyFullInformation = 2,
    KeyNameInformation = 3,
    KeyCachedInformation = 4,
    KeyFlagsInformation = 5,
    KeyVirtualizationInformation = 6,
    KeyHandleTagsInformation = 7,
    KeyTrustInformation = 8,
    KeyLayerInformation = 9,
};

enum KEY_VALUE_INFORMATION_CLASS : int {
    KeyValueBasicInformation = 0,
    KeyValueFullInformation = 1,
    KeyValuePartialInformation = 2,
    KeyValueFullInformationAlign64 = 3,
    KeyValuePartialInformationAlign64 = 4,
};

enum KEY_SET_INFORMATION_CLASS : int {
    KeyWriteTimeInformation = 0,
    KeyWow64FlagsInformation = 1,
    KeyControlFlagsInformation = 2,
    KeySetVirtualizationInformation = 3,
    KeySetDebugInformation = 4,
    KeySetHandleTagsInformation = 5,
};

struct KEY_WRITE_TIME_INFORMATION {
    LARGE_INTEGER LastWriteTime;
};
static_assert(sizeof(KEY_WRITE_TIME_INFORMATION) == 8);

/// REG_KEY_DONT_VIRTUALIZE and its like.
struct KEY_CONTROL_FLAGS_INFORMATION {
    ULONG ControlFlags;
};
struct KEY_WOW64_FLAGS_INFORMATION {
    ULONG UserFlags;
};
struct KEY_HANDLE_TAGS_INFORMATION {
    ULONG HandleTags;
};
/// Bits from the lowest: virtual target, virtual store, virtual source.
struct KEY_SET_VIRTUALIZATION_INFORMATION {
    ULONG Flags;
};
static_assert(sizeof(KEY_SET_VIRTUALIZATION_INFORMATION) == 4);
/// Bits from the lowest: candidate, enabled, and the three that are set.
struct KEY_VIRTUALIZATION_INFORMATION {
    ULONG Flags;
};
static_assert(sizeof(KEY_VIRTUALIZATION_INFORMATION) == 4);

/// KeyFlags: 1 volatile, 2 symbolic link.
struct KEY_FLAGS_INFORMATION {
    ULONG Wow64Flags;
    ULONG KeyFlags;
    ULONG ControlFlags;
};
static_assert(sizeof(KEY_FLAGS_INFORMATION) == 12);

struct KEY_BASIC_INFORMATION {
    LARGE_INTEGER LastWriteTime;
    ULONG TitleIndex;
    ULONG NameLength;
    WCHAR Name[1];
};
static_assert(sizeof(KEY_BASIC_INFORMATION) == 24 && offsetof(KEY_BASIC_INFORMATION, Name) == 16);

struct KEY_NODE_INFORMATION {
    LARGE_INTEGER LastWriteTime;
    ULONG TitleIndex;
    ULONG ClassOffset;
    ULONG ClassLength;
    ULONG NameLength;
    WCHAR Name[1];
};
static_assert(sizeof(KEY_NODE_INFORMATION) == 32 && offsetof(KEY_NODE_INFORMATION, Name) == 24);

struct KEY_FULL_INFORMATION {
    LARGE_INTEGER LastWriteTime;
    ULONG TitleIndex;
    ULONG ClassOffset;
    ULONG ClassLength;
    ULONG SubKeys;
    ULONG MaxNameLen;
    ULONG MaxClassLen;
    ULONG Values;
    ULONG MaxValueNameLen;
    ULONG MaxValueDataLen;
    WCHAR Class[1];
};
static_assert(sizeof(KEY_FULL_INFORMATION) == 48 && offsetof(KEY_FULL_INFORMATION, Class) == 44);

struct KEY_NAME_INFORMATION {
    ULONG NameLength;
    WCHAR Name[1];
};
static_assert(offsetof(KEY_NAME_INFORMATION, Name) == 4);

struct KEY_CACHED_INFORMATION {
    LARGE_INTEGER LastWriteTime;
    ULONG TitleIndex;
    ULONG SubKeys;
    ULONG MaxNameLen;
    ULONG Values;
    ULONG MaxValueNameLen;
    ULONG MaxValueDataLen;
    ULONG NameLength;
};
static_assert(sizeof(KEY_CACHED_INFORMATION) == 40);

struct KEY_VALUE_BASIC_INFORMATION {
    ULONG TitleIndex;
    ULONG Type;
    ULONG NameLength;
    WCHAR Name[1];
};
static_assert(sizeof(KEY_VALUE_BASIC_INFORMATION) == 16 &&
              offsetof(KEY_VALUE_BASIC_INFORMATION, Name) == 12);

struct KEY_VALUE_FULL_INFORMATION {
    ULONG TitleIndex;
    ULONG Type;
    ULONG DataOffset;
    ULONG DataLength;
    ULONG NameLength;
    WCHAR Name[1];
};
static_assert(sizeof(KEY_VALUE_FULL_INFORMATION) == 24 &&
              offsetof(KEY_VALUE_FULL_INFORMATION, Name) == 20);

/// The data starts at offset 12: size blocks by offsetof(Data), never by sizeof.
struct KEY_VALUE_PARTIAL_INFORMATION {
    ULONG TitleIndex;
    ULONG Type;
    ULONG DataLength;
    UCHAR Data[1];
};
using PKEY_VALUE_PARTIAL_INFORMATION = KEY_VALUE_PARTIAL_INFORMATION*;
static_assert(sizeof(KEY_VALUE_PARTIAL_INFORMATION) == 16 &&
              offsetof(KEY_VALUE_PARTIAL_INFORMATION, Data) == 12);

struct KEY_VALUE_ENTRY {
    PUNICODE_STRING ValueName;
    ULONG DataLength;
    ULONG DataOffset;
    ULONG Type;
};
using PKEY_VALUE_ENTRY = KEY_VALUE_ENTRY*;
static_assert(sizeof(KEY_VALUE_ENTRY) == 24);
