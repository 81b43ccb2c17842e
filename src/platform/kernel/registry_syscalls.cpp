// The registry's system calls under their own names: Nt... as user mode makes them, Zw... as kernel
// code does.
#include "platform/kernel/key_calls.h"
#include "platform/kernel/system_call.h"

using namespace platform;

NTSTATUS NTAPI NtCreateKey(PHANDLE key, ACCESS_MASK desiredAccess, POBJECT_ATTRIBUTES attributes,
                           ULONG, PUNICODE_STRING className, ULONG createOptions,
                           PULONG disposition) {
    return FromUser("NtCreateKey", [&](const CallerMemory& memory) {
        const KeyCreation creation{className, disposition};
        return OpenKey(memory, key, desiredAccess, attributes, createOptions, &creation);
    });
}

NTSTATUS NTAPI ZwCreateKey(PHANDLE key, ACCESS_MASK desiredAccess, POBJECT_ATTRIBUTES attributes,
                           ULONG, PUNICODE_STRING className, ULONG createOptions,
                           PULONG disposition) {
    return FromKernel("ZwCreateKey", [&](const CallerMemory& memory) {
        const KeyCreation creation{className, disposition};
        return OpenKey(memory, key, desiredAccess, attributes, createOptions, &creation);
    });
}

NTSTATUS NTAPI NtOpenKey(PHANDLE key, ACCESS_MASK desiredAccess, POBJECT_ATTRIBUTES attributes) {
    return FromUser("NtOpenKey", [&](const CallerMemory& memory) {
        return OpenKey(memory, key, desiredAccess, attributes, 0, nullptr);
    });
}

NTSTATUS NTAPI ZwOpenKey(PHANDLE key, ACCESS_MASK desiredAccess, POBJECT_ATTRIBUTES attributes) {
    return FromKernel("ZwOpenKey", [&](const CallerMemory& memory) {
        return OpenKey(memory, key, desiredAccess, attributes, 0, nullptr);
    });
}

NTSTATUS NTAPI NtOpenKeyEx(PHANDLE key, ACCESS_MASK desiredAccess, POBJECT_ATTRIBUTES attributes,
                           ULONG openOptions) {
    return FromUser("NtOpenKeyEx", [&](const CallerMemory& memory) {
        return OpenKey(memory, key, desiredAccess, attributes, openOptions, nullptr);
    });
}

NTSTATUS NTAPI ZwOpenKeyEx(PHANDLE key, ACCESS_MASK desiredAccess, POBJECT_ATTRIBUTES attributes,
                           ULONG openOptions) {
    return FromKernel("ZwOpenKeyEx", [&](const CallerMemory& memory) {
        return OpenKey(memory, key, desiredAccess, attributes, openOptions, nullptr);
    });
}

NTSTATUS NTAPI NtDeleteKey(HANDLE key) {
    return FromUser("NtDeleteKey",
                    [&](const CallerMemory& memory) { return DeleteKey(memory, key); });
}

NTSTATUS NTAPI ZwDeleteKey(HANDLE key) {
    return FromKernel("ZwDeleteKey",
                      [&](const CallerMemory& memory) { return DeleteKey(memory, key); });
}

NTSTATUS NTAPI NtRenameKey(HANDLE key, PUNICODE_STRING newName) {
    return FromUser("NtRenameKey",
                    [&](const CallerMemory& memory) { return RenameKey(memory, key, newName); });
}

NTSTATUS NTAPI ZwRenameKey(HANDLE key, PUNICODE_STRING newName) {
    return FromKernel("ZwRenameKey",
                      [&](const CallerMemory& memory) { return RenameKey(memory, key, newName); });
}

NTSTATUS NTAPI NtFlushKey(HANDLE key) {
    return FromUser("NtFlushKey",
                    [&](const CallerMemory& memory) { return FlushKey(memory, key); });
}

NTSTATUS NTAPI ZwFlushKey(HANDLE key) {
    return FromKernel("ZwFlushKey",
                      [&](const CallerMemory& memory) { return FlushKey(memory, key); });
}

NTSTATUS NTAPI NtSetValueKey(HANDLE key, PUNICODE_STRING valueName, ULONG titleIndex, ULONG type,
                             PVOID data, ULONG dataSize) {
    return FromUser("NtSetValueKey", [&](const CallerMemory& memory) {
        return SetValueKey(memory, key, valueName, titleIndex, type, data, dataSize);
    });
}

NTSTATUS NTAPI ZwSetValueKey(HANDLE key, PUNICODE_STRING valueName, ULONG titleIndex, ULONG type,
                             PVOID data, ULONG dataSize) {
    return FromKernel("ZwSetValueKey", [&](const CallerMemory& memory) {
        return SetValueKey(memory, key, valueName, titleIndex, type, data, dataSize);
    });
}

NTSTATUS NTAPI NtDeleteValueKey(HANDLE key, PUNICODE_STRING valueName) {
    return FromUser("NtDeleteValueKey", [&](const CallerMemory& memory) {
        return DeleteValueKey(memory, key, valueName);
    });
}

NTSTATUS NTAPI ZwDeleteValueKey(HANDLE key, PUNICODE_STRING valueName) {
    return FromKernel("ZwDeleteValueKey", [&](const CallerMemory& memory) {
        return DeleteValueKey(memory, key, valueName);
    });
}

NTSTATUS NTAPI NtQueryValueKey(HANDLE key, PUNICODE_STRING valueName,
                               KEY_VALUE_INFORMATION_CLASS informationClass, PVOID information,
                               ULONG length, PULONG resultLength) {
    return FromUser("NtQueryValueKey", [&](const CallerMemory& memory) {
        return QueryValueKey(memory, key, valueName, informationClass, information, length,
                             resultLength);
    });
}

NTSTATUS NTAPI ZwQueryValueKey(HANDLE key, PUNICODE_STRING valueName,
                               KEY_VALUE_INFORMATION_CLASS informationClass, PVOID information,
                               ULONG length, PULONG resultLength) {
    return FromKernel("ZwQueryValueKey", [&](const CallerMemory& memory) {
        return QueryValueKey(memory, key, valueName, informationClass, information, length,
                             resultLength);
    });
}

NTSTATUS NTAPI NtEnumerateKey(HANDLE key, ULONG index, KEY_INFORMATION_CLASS informationClass,
                              PVOID information, ULONG length, PULONG resultLength) {
    return FromUser("NtEnumerateKey", [&](const CallerMemory& memory) {
        return EnumerateKey(memory, key, index, informationClass, information, length,
                            resultLength);
    });
}

NTSTATUS NTAPI ZwEnumerateKey(HANDLE key, ULONG index, KEY_INFORMATION_CLASS informationClass,
                              PVOID information, ULONG length, PULONG resultLength) {
    return FromKernel("ZwEnumerateKey", [&](const CallerMemory& memory) {
        return EnumerateKey(memory, key, index, informationClass, information, length,
                            resultLength);
    });
}

NTSTATUS NTAPI NtEnumerateValueKey(HANDLE key, ULONG index,
                                   KEY_VALUE_INFORMATION_CLASS informationClass, PVOID information,
                                   ULONG length, PULONG resultLength) {
    return FromUser("NtEnumerateValueKey", [&](const CallerMemory& memory) {
        return EnumerateValueKey(memory, key, index, informationClass, information, length,
                                 resultLength);
    });
}

NTSTATUS NTAPI ZwEnumerateValueKey(HANDLE key, ULONG index,
                                   KEY_VALUE_INFORMATION_CLASS informationClass, PVOID information,
                                   ULONG length, PULONG resultLength) {
    return FromKernel("ZwEnumerateValueKey", [&](const CallerMemory& memory) {
        return EnumerateValueKey(memory, key, index, informationClass, information, length,
                                 resultLength);
    });
}

NTSTATUS NTAPI NtQueryKey(HANDLE key, KEY_INFORMATION_CLASS informationClass, PVOID information,
                          ULONG length, PULONG resultLength) {
    return FromUser("NtQueryKey", [&](const CallerMemory& memory) {
        return QueryKey(memory, key, informationClass, information, length, resultLength);
    });
}

NTSTATUS NTAPI ZwQueryKey(HANDLE key, KEY_INFORMATION_CLASS informationClass, PVOID information,
                          ULONG length, PULONG resultLength) {
    return FromKernel("ZwQueryKey", [&](const CallerMemory& memory) {
        return QueryKey(memory, key, informationClass, information, length, resultLength);
    });
}

NTSTATUS NTAPI NtSetInformationKey(HANDLE key, KEY_SET_INFORMATION_CLASS informationClass,
                                   PVOID information, ULONG length) {
    return FromUser("NtSetInformationKey", [&](const CallerMemory& memory) {
        return SetInformationKey(memory, key, informationClass, information, length);
    });
}

NTSTATUS NTAPI ZwSetInformationKey(HANDLE key, KEY_SET_INFORMATION_CLASS informationClass,
                                   PVOID information, ULONG length) {
    return FromKernel("ZwSetInformationKey", [&](const CallerMemory& memory) {
        return SetInformationKey(memory, key, informationClass, information, length);
    });
}

NTSTATUS NTAPI NtQueryMultipleValueKey(HANDLE key, PKEY_VALUE_ENTRY valueEntries, ULONG entryCount,
                                       PVOID valueBuffer, PULONG bufferLength,
                                       PULONG requiredBufferLength) {
    return FromUser("NtQueryMultipleValueKey", [&](const CallerMemory& memory) {
        return QueryMultipleValueKey(memory, key, valueEntries, entryCount, valueBuffer,
                                     bufferLength, requiredBufferLength);
    });
}
