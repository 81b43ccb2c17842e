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

// Objects.
NTSTATUS NTAPI NtClose(HANDLE handle);
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
