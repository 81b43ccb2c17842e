#include "platform/kernel/verifier.h"

#include "platform/kernel/held_locks.h"

#include <csetjmp>
#include <cstdio>
#include <cstdlib>
#include <utility>

namespace platform {

namespace verifier_detail {

constinit std::atomic<bool> enabled{true};

void IrqlTooHigh(const char* routine, KIRQL highest) {
    Violation(Rule::kIrqlTooHigh, std::string(routine) + " called at IRQL " +
                                      std::to_string(currentIrql) + ", allowed up to " +
                                      std::to_string(highest));
}

}  // namespace verifier_detail

namespace {

struct Catcher {
    std::jmp_buf back;
    BugcheckRecord record;
};
thread_local constinit Catcher* catcher = nullptr;

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

/// In a frame of its own, so that nothing that the caller keeps in registers is lost by the jump.
[[gnu::noinline]] bool RunCatching(Catcher& own, const std::function<void()>& action) {
    if (setjmp(own.back) != 0) return false;
    action();
    return true;
}

}  // namespace

void StopMachine(BugcheckRecord record) {
    if (catcher != nullptr) {
        catcher->record = std::move(record);
        std::longjmp(catcher->back, 1);
    }
    std::fprintf(stderr, "*** STOP 0x%08X (%#zx, %#zx, %#zx, %#zx) %s\n", record.code,
                 record.parameters[0], record.parameters[1], record.parameters[2],
                 record.parameters[3], record.message.c_str());
    std::abort();
}

void Violation(Rule rule, std::string message, const void* object, std::uint32_t tag) {
    BugcheckRecord record;
    record.code = kVerifierBugcheck;
    record.parameters[0] = static_cast<std::uintptr_t>(rule);
    record.parameters[1] = reinterpret_cast<std::uintptr_t>(object);
    record.parameters[2] = tag;
    record.message = std::string(RuleName(rule)) + ": " + message;
    if (tag != 0) record.message += ", tag " + TagText(tag);
    StopMachine(std::move(record));
}

std::optional<BugcheckRecord> CatchBugcheck(const std::function<void()>& action) {
    Catcher own;
    Catcher* const outer = std::exchange(catcher, &own);
    const KIRQL irql = currentIrql;
    const HeldLocksMark mark = MarkHeldLocks();
    const bool finished = RunCatching(own, action);
    catcher = outer;
    if (finished) return std::nullopt;
    currentIrql = irql;
    ReturnToMark(mark);
    return std::move(own.record);
}

void EnableVerifier(bool on) {
    verifier_detail::enabled.store(on, std::memory_order_relaxed);
}

CallbackCheck::CallbackCheck(const char* callback)
    : callback_(callback), irql_(currentIrql), locksHeld_(LocksHeld()) {}

CallbackCheck::~CallbackCheck() {
    if (!VerifierEnabled()) return;
    if (currentIrql != irql_) {
        Violation(Rule::kIrqlLeaked, std::string(callback_) + " returned at IRQL " +
                                         std::to_string(currentIrql) + ", called at " +
                                         std::to_string(irql_));
    }
    if (LocksHeld() != locksHeld_) {
        Violation(Rule::kLockLeaked, std::string(callback_) + " returned with " +
                                         std::to_string(LocksHeld()) + " locks held, called with " +
                                         std::to_string(locksHeld_));
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
    platform::BugcheckRecord record;
    record.code = code;
    record.parameters[0] = parameter1;
    record.parameters[1] = parameter2;
    record.parameters[2] = parameter3;
    record.parameters[3] = parameter4;
    record.message = "KeBugCheckEx";
    platform::StopMachine(std::move(record));
}
