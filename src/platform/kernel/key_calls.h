// The registry's system calls, for either previous mode. Parameters, statuses and information
// classes are those of the documented routines; registry_syscalls.cpp gives them their names.
#pragma once

#include <ntifs.h>

#include "platform/kernel/caller_memory.h"
#include "platform/kernel/key_object.h"

namespace platform {

// key_create_open.cpp
struct KeyCreation {
    PUNICODE_STRING className;
    PULONG disposition;  ///< may be null
};
/// Creates or opens with `creation`, opens without. `options` are REG_OPTION_... bits.
NTSTATUS OpenKey(const CallerMemory& memory, PHANDLE handle, ACCESS_MASK desiredAccess,
                 POBJECT_ATTRIBUTES attributes, ULONG options, const KeyCreation* creation);

// key_changes.cpp
NTSTATUS DeleteKey(const CallerMemory& memory, HANDLE handle);
NTSTATUS RenameKey(const CallerMemory& memory, HANDLE handle, PUNICODE_STRING newName);
NTSTATUS FlushKey(const CallerMemory& memory, HANDLE handle);
NTSTATUS SetInformationKey(const CallerMemory& memory, HANDLE handle,
                           KEY_SET_INFORMATION_CLASS informationClass, PVOID information,
                           ULONG length);

// key_hives.cpp
NTSTATUS SaveKey(const CallerMemory& memory, HANDLE handle, HANDLE file, ULONG format);
NTSTATUS RestoreKey(const CallerMemory& memory, HANDLE handle, HANDLE file, ULONG flags);
NTSTATUS ReplaceKey(const CallerMemory& memory, POBJECT_ATTRIBUTES newFile, HANDLE handle,
                    POBJECT_ATTRIBUTES oldFile);

// key_mounts.cpp
NTSTATUS LoadKey(const CallerMemory& memory, POBJECT_ATTRIBUTES targetKey,
                 POBJECT_ATTRIBUTES sourceFile);
NTSTATUS UnloadKey(const CallerMemory& memory, POBJECT_ATTRIBUTES targetKey);

// key_values.cpp
NTSTATUS SetValueKey(const CallerMemory& memory, HANDLE handle, PUNICODE_STRING valueName,
                     ULONG titleIndex, ULONG type, PVOID data, ULONG dataSize);
NTSTATUS DeleteValueKey(const CallerMemory& memory, HANDLE handle, PUNICODE_STRING valueName);
NTSTATUS QueryValueKey(const CallerMemory& memory, HANDLE handle, PUNICODE_STRING valueName,
                       KEY_VALUE_INFORMATION_CLASS informationClass, PVOID information,
                       ULONG length, PULONG resultLength);
NTSTATUS EnumerateValueKey(const CallerMemory& memory, HANDLE handle, ULONG index,
                           KEY_VALUE_INFORMATION_CLASS informationClass, PVOID information,
                           ULONG length, PULONG resultLength);

// key_multiple_values.cpp
NTSTATUS QueryMultipleValueKey(const CallerMemory& memory, HANDLE handle, PKEY_VALUE_ENTRY entries,
                               ULONG entryCount, PVOID buffer, PULONG bufferLength,
                               PULONG requiredLength);

// key_query.cpp
NTSTATUS QueryKey(const CallerMemory& memory, HANDLE handle, KEY_INFORMATION_CLASS informationClass,
                  PVOID information, ULONG length, PULONG resultLength);
NTSTATUS EnumerateKey(const CallerMemory& memory, HANDLE handle, ULONG index,
                      KEY_INFORMATION_CLASS informationClass, PVOID information, ULONG length,
                      PULONG resultLength);

}  // namespace platform
