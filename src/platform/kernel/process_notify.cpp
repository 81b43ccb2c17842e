#include "platform/kernel/process_notify.h"

#include "platform/kernel/driver_loader.h"
#include "platform/kernel/fault_injection.h"
#include "platform/kernel/text.h"
#include "platform/kernel/verifier.h"

#include <algorithm>
#include <condition_variable>
#include <memory>
#include <mutex>
#include <vector>

namespace platform {

namespace {

using Routine = CREATE_PROCESS_NOTIFY_ROUTINE_EX*;

struct Registration {
    Routine routine;
    int running = 0;        ///< calls in flight
    bool removing = false;  ///< gets no new calls
};

struct NotifyList {
    std::mutex lock;
    std::condition_variable idle;
    std::vector<std::shared_ptr<Registration>> registrations;
};

NotifyList& List() {
    static NotifyList list;
    return list;
}

/// As many routines as the kernel has room for.
constexpr std::size_t kMostRoutines = 64;

/// The routine that this host thread is in.
thread_local constinit Registration* running = nullptr;

void Call(Registration& registration, Process& process, PPS_CREATE_NOTIFY_INFO info) {
    Registration* const outer = std::exchange(running, &registration);
    {
        const CallbackCheck check("process notify routine");
        registration.routine(Handle(process), reinterpret_cast<HANDLE>(process.Id()), info);
    }
    running = outer;
}

void NotifyAll(Process& process, PPS_CREATE_NOTIFY_INFO info) {
    NotifyList& list = List();
    std::unique_lock guard(list.lock);
    const std::vector<std::shared_ptr<Registration>> registrations = list.registrations;
    for (const auto& registration : registrations) {
        if (registration->removing) continue;
        ++registration->running;
        guard.unlock();
        Call(*registration, process, info);
        guard.lock();
        if (--registration->running == 0) list.idle.notify_all();
    }
}

auto Find(NotifyList& list, Routine routine) {
    return std::find_if(
        list.registrations.begin(), list.registrations.end(),
        [routine](const auto& registration) { return registration->routine == routine; });
}

NTSTATUS Add(Routine routine) {
    if (const auto fault = FailThisCall("PsSetCreateProcessNotifyRoutineEx")) return *fault;
    if (!LoadingImageIsIntegrityChecked()) return STATUS_ACCESS_DENIED;
    NotifyList& list = List();
    const std::lock_guard guard(list.lock);
    const bool registered = Find(list, routine) != list.registrations.end();
    if (registered || list.registrations.size() == kMostRoutines) return STATUS_INVALID_PARAMETER;
    list.registrations.push_back(std::make_shared<Registration>(Registration{routine}));
    return STATUS_SUCCESS;
}

NTSTATUS Remove(Routine routine) {
    NotifyList& list = List();
    std::unique_lock guard(list.lock);
    const auto found = Find(list, routine);
    if (found == list.registrations.end() || (*found)->removing) return STATUS_INVALID_PARAMETER;
    const std::shared_ptr<Registration> registration = *found;
    if (running == registration.get()) {
        guard.unlock();
        Violation(Rule::kCallbackContract,
                  "PsSetCreateProcessNotifyRoutineEx: a routine that removes itself while it runs "
                  "waits for ever",
                  reinterpret_cast<void*>(routine));
    }
    registration->removing = true;
    list.idle.wait(guard, [&] { return registration->running == 0; });
    std::erase(list.registrations, registration);
    return STATUS_SUCCESS;
}

}  // namespace

NTSTATUS NotifyProcessStart(Process& process) {
    constexpr ULONG kFileOpenNameAvailable = 1;
    const UNICODE_STRING imagePath = Describe(process.ImagePath());
    PS_CREATE_NOTIFY_INFO info{};
    info.Size = sizeof(info);
    info.Flags = kFileOpenNameAvailable;
    info.ParentProcessId = reinterpret_cast<HANDLE>(process.ParentId());
    info.CreatingThreadId = {reinterpret_cast<HANDLE>(CurrentProcess().Id()),
                             reinterpret_cast<HANDLE>(CurrentThread().Id())};
    info.ImageFileName = &imagePath;
    info.CreationStatus = STATUS_SUCCESS;
    NotifyAll(process, &info);
    return info.CreationStatus;
}

void NotifyProcessExit(Process& process) {
    NotifyAll(process, nullptr);
}

std::size_t ProcessNotifyRoutineCount() {
    NotifyList& list = List();
    const std::lock_guard guard(list.lock);
    return list.registrations.size();
}

void ForgetProcessNotifyRoutines() {
    running = nullptr;
    NotifyList& list = List();
    const std::lock_guard guard(list.lock);
    list.registrations.clear();
}

}  // namespace platform

NTSTATUS NTAPI PsSetCreateProcessNotifyRoutineEx(CREATE_PROCESS_NOTIFY_ROUTINE_EX* routine,
                                                 BOOLEAN remove) {
    platform::RequireIrql("PsSetCreateProcessNotifyRoutineEx", PASSIVE_LEVEL);
    if (routine == nullptr) return STATUS_INVALID_PARAMETER;
    return remove != FALSE ? platform::Remove(routine) : platform::Add(routine);
}
