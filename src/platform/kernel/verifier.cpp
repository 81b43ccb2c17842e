#include "platform/kernel/verifier.h"

#include "platform/kernel/held_locks.h"
#include "platform/kernel/process.h"

#include <csetjmp>
#include <cstdio>
#include <cstdlib>
#include <utility>

#if defined(__SANITIZE_ADDRESS__)
#include <sanitizer/lsan_interface.h>
#endif

namespace platform {

namespace verifier_detail {

constinit std::atomic<bool> enabled{true};

void NTAPI IrqlTooHigh(const char* routine, KIRQL highest) {
    Violation(Rule::kIrqlTooHigh, std::string(routine) + " called at IRQL " +
                                      std::to_string(currentIrql) + ", allowed up to " +
                                      std::to_string(highest));
}

}  // namespace verifier_detail

namespace {

/// Where a stopped thread goes on; frames nest on their thread's stack.
struct CatchFrame {
    CatchFrame* outer;
    KIRQL irql;
    HeldLocksMark locks;
    sigjmp_buf back;
    std::optional<BugcheckRecord> record;
};
constinit thread_local CatchFrame* innermostFrame = nullptr;

/// Enters a frame for its lifetime, also when an exception of a test passes through.
class FrameScope {
public:
    explicit FrameScope(CatchFrame& frame) { innermostFrame = &frame; }
    ~FrameScope() { innermostFrame = innermostFrame->outer; }
    FrameScope(const FrameScope&) = delete;
    FrameScope& operator=(const FrameScope&) = delete;
};

/// What stopped code allocated stays allocated, and is no leak to report.
class LeaksExpected {
public:
#if defined(__SANITIZE_ADDRESS__)
    LeaksExpected() {
        __lsan_disable();
    }
    ~LeaksExpected() {
        __lsan_enable();
    }
#else
    LeaksExpected() {}
    ~LeaksExpected() {}
#endif
    LeaksExpected(const LeaksExpected&) = delete;
    LeaksExpected& operator=(const LeaksExpected&) = delete;
};

const char* RuleName(Rule rule) {
    switch (rule) {
        case Rule::kIrqlTooHigh:
            return "IRQL too high";
        case Rule::kIrqlDirection:
            return "IRQL changed the wrong way";
        case Rule::kIrqlLeaked:
            return "IRQL leaked";
        case Rule::kPoolDoubleFree:
            return "pool block freed twice";
        case Rule::kPoolWrongTag:
            return "pool block freed with another tag";
        case Rule::kPoolCorrupted:
            return "pool corrupted";
        case Rule::kPoolBadRequest:
            return "bad pool request";
        case Rule::kPoolLeaked:
            return "pool leaked";
        case Rule::kLookasideLeaked:
            return "lookaside list deleted with blocks out";
        case Rule::kLockRecursion:
            return "lock recursion";
        case Rule::kLockOrder:
            return "lock order";
        case Rule::kLockNotHeld:
            return "lock not held";
        case Rule::kLockLeaked:
            return "lock leaked";
        case Rule::kObjectBadReference:
            return "bad object reference";
        case Rule::kObjectLeaked:
            return "object leaked";
        case Rule::kHandleInvalid:
            return "invalid handle";
        case Rule::kRequestTwice:
            return "request completed twice";
        case Rule::kRequestNever:
            return "request never completed";
        case Rule::kFrameworkContract:
            return "framework contract";
        case Rule::kCallbackContract:
            return "callback contract";
        case Rule::kNotOffered:
            return "not offered by the platform";
    }
    return "unknown rule";
}

/// In a function of its own, so that nothing that the caller keeps in registers is lost by the
/// jump.
[[gnu::noinline]] void RunCatching(CatchFrame& frame, const std::function<void()>& action) {
    if (sigsetjmp(frame.back, 0) == 0) action();
}

}  // namespace

void StopMachine(BugcheckRecord record) {
    CatchFrame* const frame = innermostFrame;
    if (frame != nullptr) {
        frame->record = std::move(record);
        siglongjmp(frame->back, 1);
    }
    std::fprintf(stderr, "*** STOP 0x%08X (%#zx, %#zx, %#zx, %#zx) %s\n", record.code,
                 record.parameters[0], record.parameters[1], record.parameters[2],
                 record.parameters[3], record.message.c_str());
    std::abort();
}

void Violation(Rule rule, std::string message, const void* object, std::uint32_t tag) {
    message.insert(0, std::string(RuleName(rule)) + ": ");
    if (tag != 0) message += ", tag " + TagText(tag);
    StopMachine(
        {kVerifierBugcheck,
         {static_cast<std::uintptr_t>(rule), reinterpret_cast<std::uintptr_t>(object), tag, 0},
         std::move(message)});
}

std::optional<BugcheckRecord> CatchBugcheck(const std::function<void()>& action) {
    const LeaksExpected leaksExpected;
    CatchFrame frame{innermostFrame, currentIrql, MarkHeldLocks(), {}, std::nullopt};
    const FrameScope scope(frame);
    const HostThreadState hostThread = SaveHostThread();
    RunCatching(frame, action);
    if (frame.record) {
        currentIrql = frame.irql;
        ReturnToMark(frame.locks);
        RestoreHostThread(hostThread);
    }
    return std::move(frame.record);
}

void EnableVerifier(bool on) {
    if (VerifierEnabled() != on) ForgetAllLocks();
    verifier_detail::enabled.store(on, std::memory_order_relaxed);
}

CallbackCheck::CallbackCheck(const char* callback)
    : callback_(callback), irql_(currentIrql), locksHeld_(LocksHeld()) {}

// Locks first: one that is still held often explains the level.
CallbackCheck::~CallbackCheck() {
    if (!VerifierEnabled()) return;
    if (LocksHeld() != locksHeld_) {
        Violation(Rule::kLockLeaked,
                  std::string(callback_) + " returned with " + std::to_string(LocksHeld()) +
                      " locks held, called with " + std::to_string(locksHeld_),
                  InnermostLock());
    }
    if (currentIrql != irql_) {
        Violation(Rule::kIrqlLeaked, std::string(callback_) + " returned at IRQL " +
                                         std::to_string(currentIrql) + ", called at " +
                                         std::to_string(irql_));
    }
}

std::string TagText(std::uint32_t tag) {
    std::string text;
    for (int shift = 0; shift < 32; shift += 8) {
        const char character = static_cast<char>(tag >> shift & 0xFF);
        text += character >= ' ' && character <= '~' ? character : '.';
    }
    return text;
}

}  // namespace platform

extern "C" void NTAPI KeBugCheckEx(ULONG code, ULONG_PTR parameter1, ULONG_PTR parameter2,
                                   ULONG_PTR parameter3, ULONG_PTR parameter4) {
    platform::StopMachine({code, {parameter1, parameter2, parameter3, parameter4}, "KeBugCheckEx"});
}
