// The registry's system calls that work on files.
#include "platform/kernel/key_calls.h"
#include "platform/kernel/system_call.h"

using namespace platform;

NTSTATUS NTAPI NtLoadKey(POBJECT_ATTRIBUTES targetKey, POBJECT_ATTRIBUTES sourceFile) {
    return FromUser("NtLoadKey", [&](const CallerMemory& memory) {
        return LoadKey(memory, targetKey, sourceFile);
    });
}

NTSTATUS NTAPI ZwLoadKey(POBJECT_ATTRIBUTES targetKey, POBJECT_ATTRIBUTES sourceFile) {
    return FromKernel("ZwLoadKey", [&](const CallerMemory& memory) {
        return LoadKey(memory, targetKey, sourceFile);
    });
}

NTSTATUS NTAPI NtUnloadKey(POBJECT_ATTRIBUTES targetKey) {
    return FromUser("NtUnloadKey",
                    [&](const CallerMemory& memory) { return UnloadKey(memory, targetKey); });
}

NTSTATUS NTAPI ZwUnloadKey(POBJECT_ATTRIBUTES targetKey) {
    return FromKernel("ZwUnloadKey",
                      [&](const CallerMemory& memory) { return UnloadKey(memory, targetKey); });
}

NTSTATUS NTAPI NtSaveKey(HANDLE key, HANDLE file) {
    return FromUser("NtSaveKey", [&](const CallerMemory& memory) {
        return SaveKey(memory, key, file, REG_STANDARD_FORMAT);
    });
}

NTSTATUS NTAPI ZwSaveKey(HANDLE key, HANDLE file) {
    return FromKernel("ZwSaveKey", [&](const CallerMemory& memory) {
        return SaveKey(memory, key, file, REG_STANDARD_FORMAT);
    });
}

NTSTATUS NTAPI NtSaveKeyEx(HANDLE key, HANDLE file, ULONG format) {
    return FromUser("NtSaveKeyEx",
                    [&](const CallerMemory& memory) { return SaveKey(memory, key, file, format); });
}

NTSTATUS NTAPI ZwSaveKeyEx(HANDLE key, HANDLE file, ULONG format) {
    return FromKernel("ZwSaveKeyEx", [&](const CallerMemory& memory) {
        return SaveKey(memory, key, file, format);
    });
}

NTSTATUS NTAPI NtRestoreKey(HANDLE key, HANDLE file, ULONG flags) {
    return FromUser("NtRestoreKey", [&](const CallerMemory& memory) {
        return RestoreKey(memory, key, file, flags);
    });
}

NTSTATUS NTAPI ZwRestoreKey(HANDLE key, HANDLE file, ULONG flags) {
    return FromKernel("ZwRestoreKey", [&](const CallerMemory& memory) {
        return RestoreKey(memory, key, file, flags);
    });
}

NTSTATUS NTAPI NtReplaceKey(POBJECT_ATTRIBUTES newFile, HANDLE key, POBJECT_ATTRIBUTES oldFile) {
    return FromUser("NtReplaceKey", [&](const CallerMemory& memory) {
        return ReplaceKey(memory, newFile, key, oldFile);
    });
}

NTSTATUS NTAPI ZwReplaceKey(POBJECT_ATTRIBUTES newFile, HANDLE key, POBJECT_ATTRIBUTES oldFile) {
    return FromKernel("ZwReplaceKey", [&](const CallerMemory& memory) {
        return ReplaceKey(memory, newFile, key, oldFile);
    });
}
