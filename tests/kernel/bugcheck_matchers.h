// Running kernel calls that must stop the machine.
#pragma once

#include "platform/kernel/verifier.h"

#include <functional>
#include <optional>

namespace platform {

/// What of a bugcheck tests compare: a violation's rule, object and tag.
struct BrokenRule {
    Rule rule;
    const void* object = nullptr;
    std::uint32_t tag = 0;

    bool operator==(const BrokenRule&) const = default;
};

/// The rule that `action` breaks; nothing when it breaks none.
inline std::optional<BrokenRule> RuleBrokenBy(const std::function<void()>& action) {
    const std::optional<BugcheckRecord> record = CatchBugcheck(action);
    if (!record || record->code != kVerifierBugcheck) return std::nullopt;
    return BrokenRule{static_cast<Rule>(record->parameters[0]),
                      reinterpret_cast<const void*>(record->parameters[1]),
                      static_cast<std::uint32_t>(record->parameters[2])};
}

/// Turns the verifier off for its lifetime.
class VerifierOff {
public:
    VerifierOff() { EnableVerifier(false); }
    ~VerifierOff() { EnableVerifier(true); }
    VerifierOff(const VerifierOff&) = delete;
    VerifierOff& operator=(const VerifierOff&) = delete;
};

}  // namespace platform
