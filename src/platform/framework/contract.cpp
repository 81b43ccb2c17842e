#include "platform/framework/contract.h"

#include <cstdint>
#include <cstdio>

namespace platform::framework {

namespace {

std::string Hex(const void* handle) {
    char text[24];
    std::snprintf(text, sizeof(text), "0x%llx",
                  static_cast<unsigned long long>(reinterpret_cast<std::uintptr_t>(handle)));
    return text;
}

}  // namespace

void FrameworkBugcheck(const std::string& message, const void* object) {
    StopMachine({kFrameworkBugcheck, {0, reinterpret_cast<std::uintptr_t>(object)}, message});
}

void Call::BadHandle(const void* handle, const char* expected) const {
    const std::string call = std::string(function_) + ": ";
    if (handle == nullptr) {
        FrameworkBugcheck(call + "NULL where a " + expected + " is required");
    }
    if (const Object* object = FindObject(handle)) {
        const bool foreign = &object->Owner() != &binding_;
        FrameworkBugcheck(call + Hex(handle) + " is a " + KindName(object->Kind()) +
                              (foreign ? " of another driver" : "") + ", expected " + expected,
                          handle);
    }
    const StaleHandle stale = DescribeStale(handle);
    if (stale.kindKnown && stale.kind == ObjectKind::kRequest) {
        Violation(Rule::kRequestTwice,
                  call + "WDFREQUEST " + Hex(handle) + " was completed before and is gone", handle);
    }
    const std::string was = stale.kindKnown   ? std::string("a deleted ") + KindName(stale.kind)
                            : stale.wasHandle ? "the handle of a deleted object"
                                              : "not a framework handle";
    FrameworkBugcheck(call + Hex(handle) + " is " + was + ", expected " + expected, handle);
}

void Call::NullArgument(const char* argument) const {
    FrameworkBugcheck(std::string(function_) + ": argument " + argument + " is NULL");
}

void Call::VerifierBreak(const std::string& what, const void* handle) const {
    if (VerifierEnabled()) {
        Violation(Rule::kFrameworkContract, std::string(function_) + ": " + what, handle);
    }
}

}  // namespace platform::framework
