#include "platform/kernel/process.h"

#include "platform/kernel/handle_table.h"
#include "platform/kernel/held_locks.h"
#include "platform/kernel/process_table.h"
#include "platform/kernel/verifier.h"

#include <atomic>
#include <vector>

namespace platform {

namespace {

constexpr ACCESS_MASK kAllAccess = 0x001FFFFF;

void DestroyProcess(void* body) {
    static_cast<Process*>(body)->~Process();
}

void DestroyThread(void* body) {
    static_cast<Thread*>(body)->~Thread();
}

std::atomic<long> attachedThreads{0};

/// What a host thread is to the kernel.
struct HostThread {
    /// The threads of the enclosing ThreadScopes, innermost last; below them, once it was asked
    /// for, the system thread that the host thread is by itself.
    std::vector<ObjectRef<Thread>> scopes;
    ObjectRef<Thread> own;
    KPROCESSOR_MODE previousMode = KernelMode;

    ~HostThread() {
        if (own) attachedThreads.fetch_sub(1, std::memory_order_relaxed);
    }
};

thread_local HostThread hostThread;

Thread& OwnThread() {
    if (!hostThread.own) {
        hostThread.own = ObjectRef<Thread>::Adopt(CreateObject<Thread>(
            kThreadType, AllocateId(), ObjectRef<Process>(&SystemProcess()), true));
        attachedThreads.fetch_add(1, std::memory_order_relaxed);
    }
    return *hostThread.own;
}

/// Leaves every scope that is deeper than `depth`.
void LeaveScopes(std::size_t depth) {
    process_detail::currentThread =
        depth == 0 ? hostThread.own.get() : hostThread.scopes[depth - 1].get();
    while (hostThread.scopes.size() > depth) {
        // The reference is dropped last: destroying the thread may run kernel code.
        const ObjectRef<Thread> left = std::move(hostThread.scopes.back());
        hostThread.scopes.pop_back();
        attachedThreads.fetch_sub(1, std::memory_order_relaxed);
    }
}

}  // namespace

const ObjectType kProcessType = {
    "Process", {0x00020410, 0x00020BEB, 0x00121000, kAllAccess}, kAllAccess, DestroyProcess};
const ObjectType kThreadType = {
    "Thread", {0x00020048, 0x00020037, 0x00120800, kAllAccess}, kAllAccess, DestroyThread};

Process::Process(std::uintptr_t id, std::uintptr_t parentId, std::u16string imagePath,
                 std::int64_t createTime, Token token)
    : id_(id),
      parentId_(parentId),
      imagePath_(std::move(imagePath)),
      createTime_(createTime),
      token_(token),
      handles_(std::make_unique<HandleTable>(HandleTable::Kind::kUser)) {}

Process::~Process() = default;

Thread::Thread(std::uintptr_t id, ObjectRef<Process> process, bool systemThread)
    : id_(id), process_(std::move(process)), systemThread_(systemThread) {}

Process& SystemProcess() {
    static Process* const process = [] {
        LARGE_INTEGER now;
        KeQuerySystemTime(&now);
        return CreateObject<Process>(kProcessType, kSystemProcessId, std::uintptr_t{0},
                                     std::u16string(), std::int64_t{now.QuadPart},
                                     Token{Token::Account::kLocalSystem});
    }();
    return *process;
}

/// The innermost of what the host thread is, for quick access.
constinit thread_local Thread* process_detail::currentThread = nullptr;

Thread& process_detail::BecomeOwnThread() {
    currentThread = &OwnThread();
    return *currentThread;
}

KPROCESSOR_MODE PreviousMode() {
    return hostThread.previousMode;
}

long AttachedThreadCount() {
    return attachedThreads.load(std::memory_order_relaxed);
}

AttachedThread::AttachedThread(ObjectRef<Thread> thread)
    : depth_(hostThread.scopes.size()), previousMode_(hostThread.previousMode) {
    process_detail::currentThread = thread.get();
    hostThread.scopes.push_back(std::move(thread));
    attachedThreads.fetch_add(1, std::memory_order_relaxed);
    hostThread.previousMode = KernelMode;
}

AttachedThread::~AttachedThread() {
    hostThread.previousMode = previousMode_;
    LeaveScopes(depth_);
}

ThreadScope::ThreadScope(Process& process, std::uintptr_t threadId)
    : attached_(ObjectRef<Thread>::Adopt(
          CreateObject<Thread>(kThreadType, threadId != 0 ? threadId : AllocateId(),
                               ObjectRef<Process>(&process), process.IsSystem()))) {}

UserModeCall::UserModeCall(const char* routine)
    : previousMode_(hostThread.previousMode), routine_(routine) {
    hostThread.previousMode = UserMode;
}

UserModeCall::~UserModeCall() {
    hostThread.previousMode = previousMode_;
    if (!VerifierEnabled()) return;
    if (currentIrql != PASSIVE_LEVEL) {
        Violation(Rule::kIrqlLeaked, std::string(routine_) + " returns to user mode at IRQL " +
                                         std::to_string(currentIrql));
    }
    if (LocksHeld() != 0) {
        Violation(Rule::kLockLeaked,
                  std::string(routine_) + " returns to user mode with a lock held",
                  InnermostLock());
    }
}

HostThreadState SaveHostThread() {
    return {hostThread.scopes.size(), hostThread.previousMode};
}

void RestoreHostThread(const HostThreadState& state) {
    hostThread.previousMode = state.previousMode;
    LeaveScopes(state.depth);
}

}  // namespace platform
