// What registry callbacks are told: the notification classes and their structures.
#pragma once

#include "registry_information.h"

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
