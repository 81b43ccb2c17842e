// Routines on processes and threads that the kernel exports.
#include "platform/kernel/fault_injection.h"
#include "platform/kernel/pool.h"
#include "platform/kernel/process_table.h"
#include "platform/kernel/text.h"
#include "platform/kernel/verifier.h"

#include <cstring>

using namespace platform;

namespace {

Process& ProcessOf(PEPROCESS process, const char* routine) {
    if (process == nullptr || TypeOf(process) != &kProcessType) {
        Violation(Rule::kObjectBadReference, std::string(routine) + ": not a process", process);
    }
    return FromHandle(process);
}

}  // namespace

PEPROCESS NTAPI IoGetCurrentProcess() {
    return Handle(CurrentProcess());
}

PETHREAD NTAPI PsGetCurrentThread() {
    return reinterpret_cast<PETHREAD>(&CurrentThread());
}

HANDLE NTAPI PsGetCurrentProcessId() {
    return reinterpret_cast<HANDLE>(CurrentProcess().Id());
}

HANDLE NTAPI PsGetCurrentThreadId() {
    return reinterpret_cast<HANDLE>(CurrentThread().Id());
}

BOOLEAN NTAPI PsIsSystemThread(PETHREAD thread) {
    return reinterpret_cast<Thread*>(thread)->IsSystemThread() ? TRUE : FALSE;
}

HANDLE NTAPI PsGetProcessId(PEPROCESS process) {
    return reinterpret_cast<HANDLE>(ProcessOf(process, "PsGetProcessId").Id());
}

LONGLONG NTAPI PsGetProcessCreateTimeQuadPart(PEPROCESS process) {
    return ProcessOf(process, "PsGetProcessCreateTimeQuadPart").CreateTime();
}

NTSTATUS NTAPI PsLookupProcessByProcessId(HANDLE processId, PEPROCESS* process) {
    RequireIrql("PsLookupProcessByProcessId", PASSIVE_LEVEL);
    if (const auto fault = FailThisCall("PsLookupProcessByProcessId")) return *fault;
    ObjectRef<Process> found = FindProcess(reinterpret_cast<std::uintptr_t>(processId));
    if (!found) return STATUS_INVALID_CID;
    *process = Handle(*found.release());
    return STATUS_SUCCESS;
}

NTSTATUS NTAPI SeLocateProcessImageName(PEPROCESS process, PUNICODE_STRING* imageFileName) {
    constexpr ULONG kTag = MakeTag("Sepn");
    RequireIrql("SeLocateProcessImageName", PASSIVE_LEVEL);
    if (const auto fault = FailThisCall("SeLocateProcessImageName")) return *fault;
    const std::u16string& path = ProcessOf(process, "SeLocateProcessImageName").ImagePath();
    const UNICODE_STRING described = Describe(path);
    void* block = ExAllocatePoolWithTag(PagedPool, sizeof(UNICODE_STRING) + described.Length, kTag);
    if (block == nullptr) return STATUS_NO_MEMORY;
    auto* name = static_cast<PUNICODE_STRING>(block);
    *name = {described.Length, described.Length, nullptr};
    if (described.Length != 0) {
        name->Buffer = reinterpret_cast<PWSTR>(name + 1);
        std::memcpy(name->Buffer, path.data(), described.Length);
    }
    *imageFileName = name;
    return STATUS_SUCCESS;
}
