// The verifier: rules that kernel code must keep, checked on every call while it is enabled, and
// the way in which a machine stops.
#pragma once

#include <wdm.h>

#include <atomic>
#include <cstdint>
#include <functional>
#include <optional>
#include <string>

namespace platform {

/// What stopped the machine. Verifier violations use kVerifierBugcheck with the rule as the first
/// parameter; kernel code chooses its own through KeBugCheckEx.
struct BugcheckRecord {
    std::uint32_t code = 0;
    std::uintptr_t parameters[4] = {};
    std::string message;  ///< names the rule, the object and the tag
};

inline constexpr std::uint32_t kVerifierBugcheck = 0xC4;
inline constexpr std::uint32_t kFrameworkBugcheck = 0x10D;

/// The rules; a violation's first parameter.
enum class Rule : std::uint32_t {
    kIrqlTooHigh = 1,     ///< a routine or paged memory used above its level
    kIrqlDirection,       ///< raised below or lowered above the current level
    kIrqlLeaked,          ///< a callback or dispatch routine returned at another level
    kPoolDoubleFree,      ///< block freed twice, or not a pool block
    kPoolWrongTag,        ///< freed with another tag than it was allocated with
    kPoolCorrupted,       ///< written outside its bounds, or after it was freed
    kPoolBadRequest,      ///< zero bytes, no tag, or no such pool type
    kPoolLeaked,          ///< blocks left when their driver unloaded or the machine went down
    kLookasideLeaked,     ///< deleted while blocks are out
    kLockRecursion,       ///< acquired by its holder
    kLockOrder,           ///< acquired in the opposite order before
    kLockNotHeld,         ///< released by somebody who does not hold it
    kLockLeaked,          ///< a thread went back to user mode, or a callback returned, holding it
    kObjectBadReference,  ///< not an object, or its last reference is gone
    kObjectLeaked,        ///< references or handles left when the machine went down
    kHandleInvalid,       ///< kernel code used a handle that does not exist
    kRequestTwice,        ///< completed twice, or touched after it was completed
    kRequestNever,        ///< still owned by the driver when its queue or device went away
    kFrameworkContract,   ///< a framework function called against its contract
    kCallbackContract,    ///< a kernel routine called from where it must not be
    kNotOffered,          ///< a function table slot or routine that the platform does not offer
};

/// Stops the machine: unwinds to the enclosing CatchBugcheck of this thread, or else prints the
/// record on standard error and aborts the process.
[[noreturn]] void StopMachine(BugcheckRecord record);
/// `message` is taken by value: nothing that the stopped code holds is left behind by it.
[[noreturn]] void Violation(Rule rule, std::string message, const void* object = nullptr,
                            std::uint32_t tag = 0);

/// Runs `action` and returns the record of the bugcheck that it ran into on this thread, if any.
/// The unwinding runs no destructors, and what the stopped code held stays held: for tests that
/// throw their machine away afterwards. For the machine's own leak checks see
/// ForgetLeaks.
std::optional<BugcheckRecord> CatchBugcheck(const std::function<void()>& action);

namespace verifier_detail {
extern std::atomic<bool> enabled;
[[noreturn]] void NTAPI IrqlTooHigh(const char* routine, KIRQL highest);
}  // namespace verifier_detail

/// On by default; measurements turn it off. Switch only while no kernel code runs.
void EnableVerifier(bool on);
inline bool VerifierEnabled() {
    return verifier_detail::enabled.load(std::memory_order_relaxed);
}

/// The current thread's level without the call through the exported routine.
extern constinit thread_local KIRQL currentIrql;

/// First statement of every kernel routine: its highest level.
inline void RequireIrql(const char* routine, KIRQL highest) {
    if (currentIrql > highest && VerifierEnabled()) {
        verifier_detail::IrqlTooHigh(routine, highest);
    }
}

/// Checks, when a callback into kernel code has returned, that it left the level as it was and
/// released every lock that it took.
class CallbackCheck {
public:
    explicit CallbackCheck(const char* callback);
    ~CallbackCheck();
    CallbackCheck(const CallbackCheck&) = delete;
    CallbackCheck& operator=(const CallbackCheck&) = delete;

private:
    const char* callback_;
    KIRQL irql_;
    unsigned locksHeld_;
};

/// A tag as text, for messages.
std::string TagText(std::uint32_t tag);

}  // namespace platform
