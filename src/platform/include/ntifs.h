// Processes, security and the registry as file-system and filter drivers see them, on top of wdm.h.
#pragma once

#include "registry_information.h"
#include "registry_notifications.h"
#include "security_types.h"
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

// --- Objects -------------------------------------------------------------------------------------

enum OBJECT_INFORMATION_CLASS : int {
    ObjectBasicInformation = 0,
    ObjectNameInformation = 1,
    ObjectTypeInformation = 2,
};

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

// Hives. Files are named by \??\Host\<path>. PASSIVE_LEVEL.
NTSTATUS NTAPI ZwLoadKey(POBJECT_ATTRIBUTES targetKey, POBJECT_ATTRIBUTES sourceFile);
NTSTATUS NTAPI ZwUnloadKey(POBJECT_ATTRIBUTES targetKey);
NTSTATUS NTAPI ZwSaveKey(HANDLE key, HANDLE file);
NTSTATUS NTAPI ZwSaveKeyEx(HANDLE key, HANDLE file, ULONG format);
NTSTATUS NTAPI ZwRestoreKey(HANDLE key, HANDLE file, ULONG flags);
NTSTATUS NTAPI ZwReplaceKey(POBJECT_ATTRIBUTES newFile, HANDLE key, POBJECT_ATTRIBUTES oldFile);

// Names and security of objects. PASSIVE_LEVEL.
/// Class 1 only: the object's name, as OBJECT_NAME_INFORMATION.
NTSTATUS NTAPI ZwQueryObject(HANDLE handle, OBJECT_INFORMATION_CLASS informationClass,
                             PVOID information, ULONG length, PULONG returnLength);
NTSTATUS NTAPI ZwQuerySecurityObject(HANDLE handle, SECURITY_INFORMATION securityInformation,
                                     PSECURITY_DESCRIPTOR securityDescriptor, ULONG length,
                                     PULONG lengthNeeded);
NTSTATUS NTAPI ZwSetSecurityObject(HANDLE handle, SECURITY_INFORMATION securityInformation,
                                   PSECURITY_DESCRIPTOR securityDescriptor);
/// A copy of the object's whole descriptor, self-relative; ObReleaseObjectSecurity takes it back
/// with what `memoryAllocated` said.
NTSTATUS NTAPI ObGetObjectSecurity(PVOID object, PSECURITY_DESCRIPTOR* securityDescriptor,
                                   PBOOLEAN memoryAllocated);
void NTAPI ObReleaseObjectSecurity(PSECURITY_DESCRIPTOR securityDescriptor,
                                   BOOLEAN memoryAllocated);
/// Whether the handle's value is one of the kernel's own table. IRQL <= DISPATCH_LEVEL.
BOOLEAN NTAPI ObIsKernelHandle(HANDLE handle);

// Parts of a security descriptor, in place. IRQL <= APC_LEVEL; identifiers: any IRQL.
/// Null for an owner that is absent. STATUS_UNKNOWN_REVISION for something else than a descriptor.
NTSTATUS NTAPI RtlGetOwnerSecurityDescriptor(PSECURITY_DESCRIPTOR securityDescriptor, PSID* owner,
                                             PBOOLEAN ownerDefaulted);
NTSTATUS NTAPI RtlGetGroupSecurityDescriptor(PSECURITY_DESCRIPTOR securityDescriptor, PSID* group,
                                             PBOOLEAN groupDefaulted);
/// `dacl` and `daclDefaulted` are written only when the list is present; it may be null then.
NTSTATUS NTAPI RtlGetDaclSecurityDescriptor(PSECURITY_DESCRIPTOR securityDescriptor,
                                            PBOOLEAN daclPresent, PACL* dacl,
                                            PBOOLEAN daclDefaulted);
NTSTATUS NTAPI RtlGetSaclSecurityDescriptor(PSECURITY_DESCRIPTOR securityDescriptor,
                                            PBOOLEAN saclPresent, PACL* sacl,
                                            PBOOLEAN saclDefaulted);
/// STATUS_INVALID_PARAMETER for an index that the list does not have.
NTSTATUS NTAPI RtlGetAce(PACL acl, ULONG aceIndex, PVOID* ace);
BOOLEAN NTAPI RtlEqualSid(PSID first, PSID second);
ULONG NTAPI RtlLengthSid(PSID sid);

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
