// The system calls of user mode, as the system library offers them. They run on the calling host
// thread as a call of its current process (ThreadScope) with previous mode UserMode. Buffers are
// the caller's own memory; a bad address gives STATUS_ACCESS_VIOLATION.
#pragma once

#include <ntifs.h>

extern "C" {

// Registry.
NTSTATUS NTAPI NtCreateKey(PHANDLE key, ACCESS_MASK desiredAccess, POBJECT_ATTRIBUTES attributes,
                           ULONG titleIndex, PUNICODE_STRING className, ULONG createOptions,
                           PULONG disposition);
NTSTATUS NTAPI NtOpenKey(PHANDLE key, ACCESS_MASK desiredAccess, POBJECT_ATTRIBUTES attributes);
NTSTATUS NTAPI NtOpenKeyEx(PHANDLE key, ACCESS_MASK desiredAccess, POBJECT_ATTRIBUTES attributes,
                           ULONG openOptions);
NTSTATUS NTAPI NtDeleteKey(HANDLE key);
NTSTATUS NTAPI NtRenameKey(HANDLE key, PUNICODE_STRING newName);
NTSTATUS NTAPI NtFlushKey(HANDLE key);
NTSTATUS NTAPI NtSetValueKey(HANDLE key, PUNICODE_STRING valueName, ULONG titleIndex, ULONG type,
                             PVOID data, ULONG dataSize);
NTSTATUS NTAPI NtDeleteValueKey(HANDLE key, PUNICODE_STRING valueName);
NTSTATUS NTAPI NtQueryValueKey(HANDLE key, PUNICODE_STRING valueName,
                               KEY_VALUE_INFORMATION_CLASS informationClass, PVOID information,
                               ULONG length, PULONG resultLength);
NTSTATUS NTAPI NtEnumerateKey(HANDLE key, ULONG index, KEY_INFORMATION_CLASS informationClass,
                              PVOID information, ULONG length, PULONG resultLength);
NTSTATUS NTAPI NtEnumerateValueKey(HANDLE key, ULONG index,
                                   KEY_VALUE_INFORMATION_CLASS informationClass, PVOID information,
                                   ULONG length, PULONG resultLength);
NTSTATUS NTAPI NtQueryKey(HANDLE key, KEY_INFORMATION_CLASS informationClass, PVOID information,
                          ULONG length, PULONG resultLength);
NTSTATUS NTAPI NtSetInformationKey(HANDLE key, KEY_SET_INFORMATION_CLASS informationClass,
                                   PVOID information, ULONG length);
/// All or nothing: STATUS_BUFFER_OVERFLOW fills what fits in order of the entries, up to the first
/// that does not; `bufferLength` tells how much of the buffer was used.
NTSTATUS NTAPI NtQueryMultipleValueKey(HANDLE key, PKEY_VALUE_ENTRY valueEntries, ULONG entryCount,
                                       PVOID valueBuffer, PULONG bufferLength,
                                       PULONG requiredBufferLength);

// Hives: files of the host, named as for NtCreateFile (hive_text.h describes their text).
/// Mounts the file under \Registry\Machine or \Registry\User; a missing or empty file is an empty
/// hive. Changes go back to the file when a key of the hive is flushed and when it is unloaded.
NTSTATUS NTAPI NtLoadKey(POBJECT_ATTRIBUTES targetKey, POBJECT_ATTRIBUTES sourceFile);
/// STATUS_CANNOT_DELETE while a key of the hive is open.
NTSTATUS NTAPI NtUnloadKey(POBJECT_ATTRIBUTES targetKey);
/// Writes the key and what is below it, but for volatile keys.
NTSTATUS NTAPI NtSaveKey(HANDLE key, HANDLE file);
NTSTATUS NTAPI NtSaveKeyEx(HANDLE key, HANDLE file, ULONG format);
/// The file's contents instead of the key's. STATUS_ACCESS_DENIED while a key below is open, unless
/// REG_FORCE_RESTORE is given.
NTSTATUS NTAPI NtRestoreKey(HANDLE key, HANDLE file, ULONG flags);
/// Saves the key to the old file, which must not exist, and restores it from the new one.
NTSTATUS NTAPI NtReplaceKey(POBJECT_ATTRIBUTES newFile, HANDLE key, POBJECT_ATTRIBUTES oldFile);

// Objects.
NTSTATUS NTAPI NtClose(HANDLE handle);
/// Class 1 only, the name, as ObQueryNameString gives it.
NTSTATUS NTAPI NtQueryObject(HANDLE handle, OBJECT_INFORMATION_CLASS informationClass,
                             PVOID information, ULONG length, PULONG returnLength);
/// Keys only. STATUS_BUFFER_TOO_SMALL with the length that is needed.
NTSTATUS NTAPI NtQuerySecurityObject(HANDLE handle, SECURITY_INFORMATION securityInformation,
                                     PSECURITY_DESCRIPTOR securityDescriptor, ULONG length,
                                     PULONG lengthNeeded);
/// Keys only; the descriptor may be absolute or self-relative.
NTSTATUS NTAPI NtSetSecurityObject(HANDLE handle, SECURITY_INFORMATION securityInformation,
                                   PSECURITY_DESCRIPTOR securityDescriptor);
/// `sourceProcess` and `targetProcess` are process ids as handles. Options: 1 closes the source, 2
/// gives the same access.
NTSTATUS NTAPI NtDuplicateObject(HANDLE sourceProcess, HANDLE sourceHandle, HANDLE targetProcess,
                                 PHANDLE targetHandle, ACCESS_MASK desiredAccess, ULONG attributes,
                                 ULONG options);

// Files and devices. `event` may be null; `apcRoutine` must be.
/// Opens a device by its name, e.g. \??\zpregflt, or a file of the host as \??\Host\<path>.
NTSTATUS NTAPI NtCreateFile(PHANDLE file, ACCESS_MASK desiredAccess, POBJECT_ATTRIBUTES attributes,
                            PIO_STATUS_BLOCK ioStatus, PLARGE_INTEGER allocationSize,
                            ULONG fileAttributes, ULONG shareAccess, ULONG createDisposition,
                            ULONG createOptions, PVOID eaBuffer, ULONG eaLength);
NTSTATUS NTAPI NtReadFile(HANDLE file, HANDLE event, PVOID apcRoutine, PVOID apcContext,
                          PIO_STATUS_BLOCK ioStatus, PVOID buffer, ULONG length,
                          PLARGE_INTEGER byteOffset, PULONG key);
NTSTATUS NTAPI NtWriteFile(HANDLE file, HANDLE event, PVOID apcRoutine, PVOID apcContext,
                           PIO_STATUS_BLOCK ioStatus, PVOID buffer, ULONG length,
                           PLARGE_INTEGER byteOffset, PULONG key);
/// Returns STATUS_PENDING for a request that the driver keeps, when the file was opened without a
/// FILE_SYNCHRONOUS_IO option; `ioStatus` and the event tell of its end.
NTSTATUS NTAPI NtDeviceIoControlFile(HANDLE file, HANDLE event, PVOID apcRoutine, PVOID apcContext,
                                     PIO_STATUS_BLOCK ioStatus, ULONG controlCode,
                                     PVOID inputBuffer, ULONG inputLength, PVOID outputBuffer,
                                     ULONG outputLength);
/// Cancels the request that reports to `ioRequest`, or with null every request of the file.
NTSTATUS NTAPI NtCancelIoFileEx(HANDLE file, PIO_STATUS_BLOCK ioRequest, PIO_STATUS_BLOCK ioStatus);
NTSTATUS NTAPI NtCreateEvent(PHANDLE event, ACCESS_MASK desiredAccess,
                             POBJECT_ATTRIBUTES attributes, EVENT_TYPE type, BOOLEAN state);
NTSTATUS NTAPI NtSetEvent(HANDLE event, PLONG previousState);
NTSTATUS NTAPI NtClearEvent(HANDLE event);
NTSTATUS NTAPI NtWaitForSingleObject(HANDLE object, BOOLEAN alertable, PLARGE_INTEGER timeout);
/// Waits for any of the events; STATUS_WAIT_0 plus the index of the one that was set.
NTSTATUS NTAPI NtWaitForMultipleObjects(ULONG count, PHANDLE objects, ULONG waitAny,
                                        BOOLEAN alertable, PLARGE_INTEGER timeout);

}  // extern "C"

inline constexpr ULONG FILE_SUPERSEDE = 0;
inline constexpr ULONG FILE_OPEN = 1;
inline constexpr ULONG FILE_CREATE = 2;
inline constexpr ULONG FILE_OPEN_IF = 3;
inline constexpr ULONG FILE_OVERWRITE = 4;
inline constexpr ULONG FILE_OVERWRITE_IF = 5;
inline constexpr ULONG FILE_SYNCHRONOUS_IO_NONALERT = 0x20;
