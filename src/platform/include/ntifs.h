// Processes, security and the registry as file-system and filter drivers see them, on top of wdm.h.
#pragma once

#include "wdm.h"

// --- Processes -----------------------------------------------------------------------------------

struct CLIENT_ID {
    HANDLE UniqueProcess;
    HANDLE UniqueThread;
};
static_assert(sizeof(CLIENT_ID) == 16);

struct PS_CREATE_NOTIFY_INFO {
    SIZE_T Size;
    ULONG Flags;
    HANDLE ParentProcessId;
    CLIENT_ID CreatingThreadId;
    PVOID FileObject;
    PCUNICODE_STRING ImageFileName;
    PCUNICODE_STRING CommandLine;
    NTSTATUS CreationStatus;
};
using PPS_CREATE_NOTIFY_INFO = PS_CREATE_NOTIFY_INFO*;
static_assert(sizeof(PS_CREATE_NOTIFY_INFO) == 72 &&
              offsetof(PS_CREATE_NOTIFY_INFO, ImageFileName) == 48 &&
              offsetof(PS_CREATE_NOTIFY_INFO, CreationStatus) == 64);

/// Called at PASSIVE_LEVEL, in the creating thread at creation, in the exiting process (with a null
/// `info`) at exit.
using CREATE_PROCESS_NOTIFY_ROUTINE_EX = void NTAPI(PEPROCESS process, HANDLE processId,
                                                    PPS_CREATE_NOTIFY_INFO info);

// --- Security ------------------------------------------------------------------------------------

inline constexpr SECURITY_INFORMATION OWNER_SECURITY_INFORMATION = 0x1;
inline constexpr SECURITY_INFORMATION GROUP_SECURITY_INFORMATION = 0x2;
inline constexpr SECURITY_INFORMATION DACL_SECURITY_INFORMATION = 0x4;
inline constexpr SECURITY_INFORMATION SACL_SECURITY_INFORMATION = 0x8;

inline constexpr USHORT SE_OWNER_DEFAULTED = 0x0001;
inline constexpr USHORT SE_GROUP_DEFAULTED = 0x0002;
inline constexpr USHORT SE_DACL_PRESENT = 0x0004;
inline constexpr USHORT SE_SACL_PRESENT = 0x0010;
inline constexpr USHORT SE_DACL_PROTECTED = 0x1000;
inline constexpr USHORT SE_SELF_RELATIVE = 0x8000;
inline constexpr UCHAR SECURITY_DESCRIPTOR_REVISION = 1;
inline constexpr UCHAR ACL_REVISION = 2;
inline constexpr UCHAR ACCESS_ALLOWED_ACE_TYPE = 0;
inline constexpr UCHAR ACCESS_DENIED_ACE_TYPE = 1;

struct SID_IDENTIFIER_AUTHORITY {
    UCHAR Value[6];
};

struct SID {
    UCHAR Revision;
    UCHAR SubAuthorityCount;
    SID_IDENTIFIER_AUTHORITY IdentifierAuthority;
    ULONG SubAuthority[1];
};
static_assert(sizeof(SID) == 12 && offsetof(SID, SubAuthority) == 8);

struct ACL {
    UCHAR AclRevision;
    UCHAR Sbz1;
    USHORT AclSize;
    USHORT AceCount;
    USHORT Sbz2;
};
using PACL = ACL*;
static_assert(sizeof(ACL) == 8);

struct ACE_HEADER {
    UCHAR AceType;
    UCHAR AceFlags;
    USHORT AceSize;
};
static_assert(sizeof(ACE_HEADER) == 4);

struct ACCESS_ALLOWED_ACE {
    ACE_HEADER Header;
    ACCESS_MASK Mask;
    ULONG SidStart;
};
static_assert(sizeof(ACCESS_ALLOWED_ACE) == 12);

/// Self-relative form: offsets from the structure's first byte, 0 where the part is absent.
struct SECURITY_DESCRIPTOR_RELATIVE {
    UCHAR Revision;
    UCHAR Sbz1;
    USHORT Control;
    ULONG Owner;
    ULONG Group;
    ULONG Sacl;
    ULONG Dacl;
};
static_assert(sizeof(SECURITY_DESCRIPTOR_RELATIVE) == 20);

// --- Registry: access, options, information classes ----------------------------------------------

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

// --- Registry callbacks --------------------------------------------------------------------------

enum REG_NOTIFY_CLASS : int {
    RegNtPreDeleteKey = 0,
    RegNtPreSetValueKey = 1,
    RegNtPreDeleteValueKey = 2,
    RegNtPreSetInformationKey = 3,
    RegNtPreRenameKey = 4,
    RegNtPreEnumerateKey = 5,
    RegNtPreEnumerateValueKey = 6,
    RegNtPreQueryKey = 7,
    RegNtPreQueryValueKey = 8,
    RegNtPreQueryMultipleValueKey = 9,
    RegNtPreCreateKey = 10,
    RegNtPostCreateKey = 11,
    RegNtPreOpenKey = 12,
    RegNtPostOpenKey = 13,
    RegNtPreKeyHandleClose = 14,
    RegNtPostDeleteKey = 15,
    RegNtPostSetValueKey = 16,
    RegNtPostDeleteValueKey = 17,
    RegNtPostSetInformationKey = 18,
    RegNtPostRenameKey = 19,
    RegNtPostEnumerateKey = 20,
    RegNtPostEnumerateValueKey = 21,
    RegNtPostQueryKey = 22,
    RegNtPostQueryValueKey = 23,
    RegNtPostQueryMultipleValueKey = 24,
    RegNtPostKeyHandleClose = 25,
    RegNtPreCreateKeyEx = 26,
    RegNtPostCreateKeyEx = 27,
    RegNtPreOpenKeyEx = 28,
    RegNtPostOpenKeyEx = 29,
    RegNtPreFlushKey = 30,
    RegNtPostFlushKey = 31,
    RegNtPreLoadKey = 32,
    RegNtPostLoadKey = 33,
    RegNtPreUnLoadKey = 34,
    RegNtPostUnLoadKey = 35,
    RegNtPreQueryKeySecurity = 36,
    RegNtPostQueryKeySecurity = 37,
    RegNtPreSetKeySecurity = 38,
    RegNtPostSetKeySecurity = 39,
    RegNtCallbackObjectContextCleanup = 40,
    RegNtPreRestoreKey = 41,
    RegNtPostRestoreKey = 42,
    RegNtPreSaveKey = 43,
    RegNtPostSaveKey = 44,
    RegNtPreReplaceKey = 45,
    RegNtPostReplaceKey = 46,
    RegNtPreQueryKeyName = 47,
    RegNtPostQueryKeyName = 48,
};

using EX_CALLBACK_FUNCTION = NTSTATUS NTAPI(PVOID callbackContext, PVOID argument1,
                                            PVOID argument2);
using PEX_CALLBACK_FUNCTION = EX_CALLBACK_FUNCTION*;

struct REG_DELETE_KEY_INFORMATION {
    PVOID Object;
    PVOID CallContext;
    PVOID ObjectContext;
    PVOID Reserved;
};
using REG_KEY_HANDLE_CLOSE_INFORMATION = REG_DELETE_KEY_INFORMATION;
using REG_FLUSH_KEY_INFORMATION = REG_DELETE_KEY_INFORMATION;
static_assert(sizeof(REG_DELETE_KEY_INFORMATION) == 32 &&
              offsetof(REG_DELETE_KEY_INFORMATION, ObjectContext) == 16);

struct REG_SET_VALUE_KEY_INFORMATION {
    PVOID Object;
    PUNICODE_STRING ValueName;
    ULONG TitleIndex;
    ULONG Type;
    PVOID Data;
    ULONG DataSize;
    PVOID CallContext;
    PVOID ObjectContext;
    PVOID Reserved;
};
static_assert(sizeof(REG_SET_VALUE_KEY_INFORMATION) == 64 &&
              offsetof(REG_SET_VALUE_KEY_INFORMATION, Type) == 20 &&
              offsetof(REG_SET_VALUE_KEY_INFORMATION, CallContext) == 40 &&
              offsetof(REG_SET_VALUE_KEY_INFORMATION, ObjectContext) == 48);

struct REG_DELETE_VALUE_KEY_INFORMATION {
    PVOID Object;
    PUNICODE_STRING ValueName;
    PVOID CallContext;
    PVOID ObjectContext;
    PVOID Reserved;
};
static_assert(sizeof(REG_DELETE_VALUE_KEY_INFORMATION) == 40 &&
              offsetof(REG_DELETE_VALUE_KEY_INFORMATION, ObjectContext) == 24);

struct REG_SET_INFORMATION_KEY_INFORMATION {
    PVOID Object;
    KEY_SET_INFORMATION_CLASS KeySetInformationClass;
    PVOID KeySetInformation;
    ULONG KeySetInformationLength;
    PVOID CallContext;
    PVOID ObjectContext;
    PVOID Reserved;
};
static_assert(sizeof(REG_SET_INFORMATION_KEY_INFORMATION) == 56 &&
              offsetof(REG_SET_INFORMATION_KEY_INFORMATION, KeySetInformationLength) == 24 &&
              offsetof(REG_SET_INFORMATION_KEY_INFORMATION, ObjectContext) == 40);

struct REG_RENAME_KEY_INFORMATION {
    PVOID Object;
    PUNICODE_STRING NewName;
    PVOID CallContext;
    PVOID ObjectContext;
    PVOID Reserved;
};
static_assert(sizeof(REG_RENAME_KEY_INFORMATION) == 40 &&
              offsetof(REG_RENAME_KEY_INFORMATION, ObjectContext) == 24);

struct REG_ENUMERATE_KEY_INFORMATION {
    PVOID Object;
    ULONG Index;
    KEY_INFORMATION_CLASS KeyInformationClass;
    PVOID KeyInformation;
    ULONG Length;
    PULONG ResultLength;
    PVOID CallContext;
    PVOID ObjectContext;
    PVOID Reserved;
};
static_assert(sizeof(REG_ENUMERATE_KEY_INFORMATION) == 64 &&
              offsetof(REG_ENUMERATE_KEY_INFORMATION, ResultLength) == 32 &&
              offsetof(REG_ENUMERATE_KEY_INFORMATION, ObjectContext) == 48);

struct REG_ENUMERATE_VALUE_KEY_INFORMATION {
    PVOID Object;
    ULONG Index;
    KEY_VALUE_INFORMATION_CLASS KeyValueInformationClass;
    PVOID KeyValueInformation;
    ULONG Length;
    PULONG ResultLength;
    PVOID CallContext;
    PVOID ObjectContext;
    PVOID Reserved;
};
static_assert(sizeof(REG_ENUMERATE_VALUE_KEY_INFORMATION) == 64 &&
              offsetof(REG_ENUMERATE_VALUE_KEY_INFORMATION, ObjectContext) == 48);

struct REG_QUERY_KEY_INFORMATION {
    PVOID Object;
    KEY_INFORMATION_CLASS KeyInformationClass;
    PVOID KeyInformation;
    ULONG Length;
    PULONG ResultLength;
    PVOID CallContext;
    PVOID ObjectContext;
    PVOID Reserved;
};
static_assert(sizeof(REG_QUERY_KEY_INFORMATION) == 64 &&
              offsetof(REG_QUERY_KEY_INFORMATION, ResultLength) == 32 &&
              offsetof(REG_QUERY_KEY_INFORMATION, ObjectContext) == 48);

struct REG_QUERY_VALUE_KEY_INFORMATION {
    PVOID Object;
    PUNICODE_STRING ValueName;
    KEY_VALUE_INFORMATION_CLASS KeyValueInformationClass;
    PVOID KeyValueInformation;
    ULONG Length;
    PULONG ResultLength;
    PVOID CallContext;
    PVOID ObjectContext;
    PVOID Reserved;
};
static_assert(sizeof(REG_QUERY_VALUE_KEY_INFORMATION) == 72 &&
              offsetof(REG_QUERY_VALUE_KEY_INFORMATION, ResultLength) == 40 &&
              offsetof(REG_QUERY_VALUE_KEY_INFORMATION, ObjectContext) == 56);

struct REG_QUERY_MULTIPLE_VALUE_KEY_INFORMATION {
    PVOID Object;
    PKEY_VALUE_ENTRY ValueEntries;
    ULONG EntryCount;
    PVOID ValueBuffer;
    PULONG BufferLength;
    PULONG RequiredBufferLength;
    PVOID CallContext;
    PVOID ObjectContext;
    PVOID Reserved;
};
static_assert(sizeof(REG_QUERY_MULTIPLE_VALUE_KEY_INFORMATION) == 72 &&
              offsetof(REG_QUERY_MULTIPLE_VALUE_KEY_INFORMATION, ObjectContext) == 56);

/// Creation and opening (classes 26 and 28), in the form that Windows 7 and later pass. A
/// CompleteName that begins with a backslash is absolute, otherwise relative to RootObject.
struct REG_CREATE_KEY_INFORMATION_V1 {
    PUNICODE_STRING CompleteName;
    PVOID RootObject;
    PVOID ObjectType;
    ULONG CreateOptions;
    PUNICODE_STRING Class;
    PVOID SecurityDescriptor;
    PVOID SecurityQualityOfService;
    ACCESS_MASK DesiredAccess;
    ACCESS_MASK GrantedAccess;
    PULONG Disposition;
    PVOID* ResultObject;
    PVOID CallContext;
    PVOID RootObjectContext;
    PVOID Transaction;
    ULONG_PTR Version;
    PUNICODE_STRING RemainingName;
    ULONG Wow64Flags;
    ULONG Attributes;
    KPROCESSOR_MODE CheckAccessMode;
};
using REG_CREATE_KEY_INFORMATION = REG_CREATE_KEY_INFORMATION_V1;
using REG_OPEN_KEY_INFORMATION = REG_CREATE_KEY_INFORMATION_V1;
static_assert(sizeof(REG_CREATE_KEY_INFORMATION) == 136 &&
              offsetof(REG_CREATE_KEY_INFORMATION, CreateOptions) == 24 &&
              offsetof(REG_CREATE_KEY_INFORMATION, DesiredAccess) == 56 &&
              offsetof(REG_CREATE_KEY_INFORMATION, Disposition) == 64 &&
              offsetof(REG_CREATE_KEY_INFORMATION, CallContext) == 80 &&
              offsetof(REG_CREATE_KEY_INFORMATION, RootObjectContext) == 88 &&
              offsetof(REG_CREATE_KEY_INFORMATION, Version) == 104 &&
              offsetof(REG_CREATE_KEY_INFORMATION, Attributes) == 124);

struct REG_POST_OPERATION_INFORMATION {
    PVOID Object;
    NTSTATUS Status;
    PVOID PreInformation;
    NTSTATUS ReturnStatus;
    PVOID CallContext;
    PVOID ObjectContext;
    PVOID Reserved;
};
static_assert(sizeof(REG_POST_OPERATION_INFORMATION) == 56 &&
              offsetof(REG_POST_OPERATION_INFORMATION, Status) == 8 &&
              offsetof(REG_POST_OPERATION_INFORMATION, PreInformation) == 16 &&
              offsetof(REG_POST_OPERATION_INFORMATION, CallContext) == 32 &&
              offsetof(REG_POST_OPERATION_INFORMATION, ObjectContext) == 40);

struct REG_LOAD_KEY_INFORMATION {
    PVOID Object;
    PUNICODE_STRING KeyName;
    PUNICODE_STRING SourceFile;
    ULONG Flags;
    PVOID TrustClassObject;
    PVOID UserEvent;
    ACCESS_MASK DesiredAccess;
    PHANDLE RootHandle;
    PVOID CallContext;
    PVOID ObjectContext;
    PVOID Reserved;
};
static_assert(sizeof(REG_LOAD_KEY_INFORMATION) == 88 &&
              offsetof(REG_LOAD_KEY_INFORMATION, ObjectContext) == 72);

struct REG_UNLOAD_KEY_INFORMATION {
    PVOID Object;
    PVOID UserEvent;
    PVOID CallContext;
    PVOID ObjectContext;
    PVOID Reserved;
};
static_assert(sizeof(REG_UNLOAD_KEY_INFORMATION) == 40);

struct REG_QUERY_KEY_SECURITY_INFORMATION {
    PVOID Object;
    PSECURITY_INFORMATION SecurityInformation;
    PSECURITY_DESCRIPTOR SecurityDescriptor;
    PULONG Length;
    PVOID CallContext;
    PVOID ObjectContext;
    PVOID Reserved;
};
static_assert(sizeof(REG_QUERY_KEY_SECURITY_INFORMATION) == 56);

struct REG_SET_KEY_SECURITY_INFORMATION {
    PVOID Object;
    PSECURITY_INFORMATION SecurityInformation;
    PSECURITY_DESCRIPTOR SecurityDescriptor;
    PVOID CallContext;
    PVOID ObjectContext;
    PVOID Reserved;
};
static_assert(sizeof(REG_SET_KEY_SECURITY_INFORMATION) == 48 &&
              offsetof(REG_SET_KEY_SECURITY_INFORMATION, ObjectContext) == 32);

struct REG_RESTORE_KEY_INFORMATION {
    PVOID Object;
    HANDLE FileHandle;
    ULONG Flags;
    PVOID CallContext;
    PVOID ObjectContext;
    PVOID Reserved;
};
static_assert(sizeof(REG_RESTORE_KEY_INFORMATION) == 48);

struct REG_SAVE_KEY_INFORMATION {
    PVOID Object;
    HANDLE FileHandle;
    ULONG Format;
    PVOID CallContext;
    PVOID ObjectContext;
    PVOID Reserved;
};
static_assert(sizeof(REG_SAVE_KEY_INFORMATION) == 48);

struct REG_REPLACE_KEY_INFORMATION {
    PVOID Object;
    PUNICODE_STRING OldFileName;
    PUNICODE_STRING NewFileName;
    PVOID CallContext;
    PVOID ObjectContext;
    PVOID Reserved;
};
static_assert(sizeof(REG_REPLACE_KEY_INFORMATION) == 48);

struct REG_QUERY_KEY_NAME {
    PVOID Object;
    POBJECT_NAME_INFORMATION ObjectNameInfo;
    ULONG Length;
    PULONG ReturnLength;
    PVOID CallContext;
    PVOID ObjectContext;
    PVOID Reserved;
};
static_assert(sizeof(REG_QUERY_KEY_NAME) == 56);

struct REG_CALLBACK_CONTEXT_CLEANUP_INFORMATION {
    PVOID Object;
    PVOID ObjectContext;
    PVOID Reserved;
};
static_assert(sizeof(REG_CALLBACK_CONTEXT_CLEANUP_INFORMATION) == 24 &&
              offsetof(REG_CALLBACK_CONTEXT_CLEANUP_INFORMATION, ObjectContext) == 8);

extern "C" {

// Registry callbacks. PASSIVE_LEVEL (CmUnRegisterCallback: IRQL <= APC_LEVEL).
/// Altitudes are decimal strings; one that is taken gives STATUS_FLT_INSTANCE_ALTITUDE_COLLISION.
NTSTATUS NTAPI CmRegisterCallbackEx(PEX_CALLBACK_FUNCTION function, PCUNICODE_STRING altitude,
                                    PVOID driver, PVOID context, PLARGE_INTEGER cookie,
                                    PVOID reserved);
/// Waits for callbacks in flight and delivers the clean-up of every object context. Must not be
/// called from inside the callback.
NTSTATUS NTAPI CmUnRegisterCallback(LARGE_INTEGER cookie);
NTSTATUS NTAPI CmSetCallbackObjectContext(PVOID object, PLARGE_INTEGER cookie, PVOID newContext,
                                          PVOID* oldContext);

// Registry. PASSIVE_LEVEL.
NTSTATUS NTAPI ZwCreateKey(PHANDLE key, ACCESS_MASK desiredAccess, POBJECT_ATTRIBUTES attributes,
                           ULONG titleIndex, PUNICODE_STRING className, ULONG createOptions,
                           PULONG disposition);
NTSTATUS NTAPI ZwOpenKey(PHANDLE key, ACCESS_MASK desiredAccess, POBJECT_ATTRIBUTES attributes);
NTSTATUS NTAPI ZwOpenKeyEx(PHANDLE key, ACCESS_MASK desiredAccess, POBJECT_ATTRIBUTES attributes,
                           ULONG openOptions);
NTSTATUS NTAPI ZwDeleteKey(HANDLE key);
NTSTATUS NTAPI ZwRenameKey(HANDLE key, PUNICODE_STRING newName);
NTSTATUS NTAPI ZwFlushKey(HANDLE key);
NTSTATUS NTAPI ZwSetValueKey(HANDLE key, PUNICODE_STRING valueName, ULONG titleIndex, ULONG type,
                             PVOID data, ULONG dataSize);
NTSTATUS NTAPI ZwDeleteValueKey(HANDLE key, PUNICODE_STRING valueName);
NTSTATUS NTAPI ZwQueryValueKey(HANDLE key, PUNICODE_STRING valueName,
                               KEY_VALUE_INFORMATION_CLASS informationClass, PVOID information,
                               ULONG length, PULONG resultLength);
NTSTATUS NTAPI ZwEnumerateKey(HANDLE key, ULONG index, KEY_INFORMATION_CLASS informationClass,
                              PVOID information, ULONG length, PULONG resultLength);
NTSTATUS NTAPI ZwEnumerateValueKey(HANDLE key, ULONG index,
                                   KEY_VALUE_INFORMATION_CLASS informationClass, PVOID information,
                                   ULONG length, PULONG resultLength);
NTSTATUS NTAPI ZwQueryKey(HANDLE key, KEY_INFORMATION_CLASS informationClass, PVOID information,
                          ULONG length, PULONG resultLength);
NTSTATUS NTAPI ZwSetInformationKey(HANDLE key, KEY_SET_INFORMATION_CLASS informationClass,
                                   PVOID information, ULONG length);

// Processes. PASSIVE_LEVEL, but for PsIsSystemThread, PsGetProcessId and the creation time.
BOOLEAN NTAPI PsIsSystemThread(PETHREAD thread);
HANDLE NTAPI PsGetProcessId(PEPROCESS process);
LONGLONG NTAPI PsGetProcessCreateTimeQuadPart(PEPROCESS process);
/// The process is returned with a reference.
NTSTATUS NTAPI PsLookupProcessByProcessId(HANDLE processId, PEPROCESS* process);
/// The image's path in one pool block, which the caller frees with ExFreePool.
NTSTATUS NTAPI SeLocateProcessImageName(PEPROCESS process, PUNICODE_STRING* imageFileName);
/// STATUS_ACCESS_DENIED unless the routine's image was linked with integrity checks;
/// STATUS_INVALID_PARAMETER when it is registered already. Removing waits for running calls.
NTSTATUS NTAPI PsSetCreateProcessNotifyRoutineEx(CREATE_PROCESS_NOTIFY_ROUTINE_EX* routine,
                                                 BOOLEAN remove);

}  // extern "C"
