// Threads that kernel code starts with PsCreateSystemThread.
#include "platform/kernel/system_thread.h"

#include "platform/kernel/fault_injection.h"
#include "platform/kernel/process_table.h"
#include "platform/kernel/verifier.h"

#include <atomic>
#include <csetjmp>
#include <list>
#include <mutex>
#include <thread>

namespace platform {

namespace {

struct SystemThread {
    std::thread host;
    std::atomic<bool> finished{false};
};

struct SystemThreads {
    std::mutex lock;
    std::list<SystemThread> threads;
};

SystemThreads& Threads() {
    static SystemThreads threads;
    return threads;
}

/// Where PsTerminateSystemThread returns to; null in other threads.
thread_local constinit std::jmp_buf* threadEnd = nullptr;

/// The start routine in a frame of its own: PsTerminateSystemThread leaves it by a jump that runs
/// no destructors, as on Windows.
void CallStartRoutine(KSTART_ROUTINE* routine, void* context) {
    std::jmp_buf end;
    threadEnd = &end;
    if (setjmp(end) == 0) routine(context);
    threadEnd = nullptr;
}

void Run(SystemThread& self, ObjectRef<Thread> thread, KSTART_ROUTINE* routine, void* context) {
    {
        const AttachedThread attached(std::move(thread));
        const CallbackCheck check("system thread");
        CallStartRoutine(routine, context);
    }
    self.finished.store(true, std::memory_order_release);
}

/// Joins what has finished; under the lock.
void Reap(SystemThreads& threads) {
    threads.threads.remove_if([](SystemThread& thread) {
        if (!thread.finished.load(std::memory_order_acquire)) return false;
        thread.host.join();
        return true;
    });
}

}  // namespace

std::size_t RunningSystemThreads() {
    SystemThreads& threads = Threads();
    const std::lock_guard guard(threads.lock);
    Reap(threads);
    return threads.threads.size();
}

NTSTATUS StartSystemThread(KSTART_ROUTINE* routine, void* context, ULONG attributes,
                           HANDLE* handle) {
    auto thread = ObjectRef<Thread>::Adopt(CreateObject<Thread>(
        kThreadType, AllocateId(), ObjectRef<Process>(&SystemProcess()), true));
    const NTSTATUS status = CreateHandle(thread.get(), kThreadType.validAccess, attributes, handle);
    if (!NT_SUCCESS(status)) return status;
    SystemThreads& threads = Threads();
    const std::lock_guard guard(threads.lock);
    Reap(threads);
    SystemThread& entry = threads.threads.emplace_back();
    entry.host =
        std::thread([&entry, thread, routine, context] { Run(entry, thread, routine, context); });
    return STATUS_SUCCESS;
}

}  // namespace platform

NTSTATUS NTAPI PsCreateSystemThread(PHANDLE thread, ULONG, POBJECT_ATTRIBUTES attributes, HANDLE,
                                    PVOID, KSTART_ROUTINE* startRoutine, PVOID startContext) {
    platform::RequireIrql("PsCreateSystemThread", PASSIVE_LEVEL);
    if (const auto fault = platform::FailThisCall("PsCreateSystemThread")) return *fault;
    return platform::StartSystemThread(startRoutine, startContext,
                                       attributes == nullptr ? 0 : attributes->Attributes, thread);
}

NTSTATUS NTAPI PsTerminateSystemThread(NTSTATUS) {
    platform::RequireIrql("PsTerminateSystemThread", PASSIVE_LEVEL);
    if (platform::threadEnd == nullptr) return STATUS_INVALID_PARAMETER;
    std::longjmp(*platform::threadEnd, 1);
}
