// Processes and threads: who runs kernel code.
//
// Every host thread that enters kernel code is some ETHREAD: one that was attached to a process
// with ThreadScope, or else a thread of the system process.
//
//   process          the objects, and who the host thread is      process_table   process ids
//   process_notify   who is told of starts and exits               system_work     worker threads
//   system_thread    threads that kernel code starts               process_routines  exports
#pragma once

#include <ntifs.h>

#include "platform/kernel/object.h"

#include <cstddef>
#include <cstdint>
#include <functional>
#include <memory>
#include <string>

namespace platform {

class HandleTable;

/// Who a process acts for, as far as access checks ask.
struct Token {
    enum class Account { kLocalSystem, kAdministrator, kUser, kRestricted };
    Account account = Account::kAdministrator;
};

/// Process id of the system process, which runs system threads.
inline constexpr std::uintptr_t kSystemProcessId = 4;

class Process {
public:
    std::uintptr_t Id() const { return id_; }
    std::uintptr_t ParentId() const { return parentId_; }
    /// Empty for the system process.
    const std::u16string& ImagePath() const { return imagePath_; }
    std::int64_t CreateTime() const { return createTime_; }
    const Token& GetToken() const { return token_; }
    bool IsSystem() const { return id_ == kSystemProcessId; }
    HandleTable& Handles() { return *handles_; }

    Process(std::uintptr_t id, std::uintptr_t parentId, std::u16string imagePath,
            std::int64_t createTime, Token token);
    ~Process();

private:
    std::uintptr_t id_;
    std::uintptr_t parentId_;
    std::u16string imagePath_;
    std::int64_t createTime_;
    Token token_;
    std::unique_ptr<HandleTable> handles_;
};

class Thread {
public:
    std::uintptr_t Id() const { return id_; }
    Process& Owner() const { return *process_; }
    /// A thread that PsCreateSystemThread made, or a worker of the kernel: always in kernel mode.
    bool IsSystemThread() const { return systemThread_; }

    Thread(std::uintptr_t id, ObjectRef<Process> process, bool systemThread);

private:
    std::uintptr_t id_;
    ObjectRef<Process> process_;
    bool systemThread_;
};

extern const ObjectType kProcessType;
extern const ObjectType kThreadType;

/// The process of system threads. It outlives every machine of the host process.
Process& SystemProcess();

namespace process_detail {
/// Null: not asked for yet.
extern constinit thread_local Thread* currentThread;
Thread& BecomeOwnThread();
}  // namespace process_detail

/// The thread that this host thread is. A host thread that was not attached is a system thread of
/// the system process.
inline Thread& CurrentThread() {
    Thread* const current = process_detail::currentThread;
    return current != nullptr ? *current : process_detail::BecomeOwnThread();
}
inline Process& CurrentProcess() {
    return CurrentThread().Owner();
}
/// KernelMode or UserMode: the mode that the current system call came from.
KPROCESSOR_MODE PreviousMode();

/// Makes the host thread `thread` for its lifetime, in kernel mode until it makes a system call.
/// Nests.
class AttachedThread {
public:
    explicit AttachedThread(ObjectRef<Thread> thread);
    ~AttachedThread();
    AttachedThread(const AttachedThread&) = delete;
    AttachedThread& operator=(const AttachedThread&) = delete;

private:
    std::size_t depth_;
    KPROCESSOR_MODE previousMode_;
};

/// Makes the host thread a thread of `process` for its lifetime (a new ETHREAD, or with `threadId`
/// one of that id). Nests.
class ThreadScope {
public:
    explicit ThreadScope(Process& process, std::uintptr_t threadId = 0);

private:
    AttachedThread attached_;
};

/// Around a system call made from user mode; checks on the way out that the thread returns at
/// PASSIVE_LEVEL and holds no lock.
class UserModeCall {
public:
    explicit UserModeCall(const char* routine);
    ~UserModeCall();
    UserModeCall(const UserModeCall&) = delete;
    UserModeCall& operator=(const UserModeCall&) = delete;

private:
    KPROCESSOR_MODE previousMode_;
    const char* routine_;
};

/// How deep this host thread is in ThreadScopes and system calls. Whoever leaves scopes without
/// running their destructors saves it before and restores it afterwards.
struct HostThreadState {
    std::size_t depth;
    KPROCESSOR_MODE previousMode;
};
HostThreadState SaveHostThread();
void RestoreHostThread(const HostThreadState& state);

/// Thread objects that host threads are now, or are under a ThreadScope.
long AttachedThreadCount();

/// Runs `work` on a system worker thread at PASSIVE_LEVEL. IRQL <= DISPATCH_LEVEL.
void QueueSystemWork(std::function<void()> work);
/// Waits until all work that is queued or running, also by that work, is done. Not from a worker.
void DrainSystemWork();

inline PEPROCESS Handle(Process& process) {
    return reinterpret_cast<PEPROCESS>(&process);
}
inline Process& FromHandle(PEPROCESS process) {
    return *reinterpret_cast<Process*>(process);
}

}  // namespace platform
