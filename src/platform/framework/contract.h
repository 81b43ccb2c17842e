// What every framework function checks about its caller: level, handles and required pointers. A
// breach is a framework bugcheck, as it is on Windows, whether or not the verifier is on.
#pragma once

#include "platform/framework/binding.h"
#include "platform/framework/handle_table.h"
#include "platform/framework/object.h"
#include "platform/kernel/fault_injection.h"
#include "platform/kernel/verifier.h"

#include <wdf.h>

#include <chrono>
#include <optional>
#include <string>

namespace platform::framework {

/// How long what goes away waits for the driver's requests and for objects that should go by
/// themselves, before it calls them lost.
inline constexpr std::chrono::seconds kPatience{5};

/// Stops the machine with the framework's bugcheck code.
[[noreturn]] void FrameworkBugcheck(const std::string& message, const void* object = nullptr);

/// One call of a framework function by a driver: the first object of each function.
class Call {
public:
    /// `function` is a literal; the level is checked while the verifier is on.
    Call(PWDF_DRIVER_GLOBALS globals, const char* function, KIRQL highestLevel)
        : function_(function), binding_(Binding::FromGlobals(globals, function)) {
        RequireIrql(function, highestLevel);
    }

    const char* Function() const { return function_; }
    Binding& Caller() const { return binding_; }

    /// The object of kind T behind a handle of this driver.
    template <typename T>
    T& To(const void* handle) const {
        Object* object = FindObject(handle);
        if (object == nullptr || object->Kind() != T::kKind || &object->Owner() != &binding_) {
            BadHandle(handle, KindName(T::kKind));
        }
        return static_cast<T&>(*object);
    }
    Object& ToObject(const void* handle) const {
        Object* object = FindObject(handle);
        if (object == nullptr || &object->Owner() != &binding_) BadHandle(handle, "WDFOBJECT");
        return *object;
    }

    template <typename T>
    T& NotNull(T* pointer, const char* argument) const {
        if (pointer == nullptr) NullArgument(argument);
        return *pointer;
    }
    /// For callbacks, which cannot be referred to generically.
    void RequireCallback(bool given, const char* argument) const {
        if (!given) NullArgument(argument);
    }

    /// The status that a planned fault makes this call fail with.
    std::optional<NTSTATUS> PlannedFault() const { return FailThisCall(function_); }

    /// A breach that only the framework's verifier notices: without it the call is ignored.
    void VerifierBreak(const std::string& what, const void* handle) const;

private:
    [[noreturn]] void BadHandle(const void* handle, const char* expected) const;
    [[noreturn]] void NullArgument(const char* argument) const;

    const char* function_;
    Binding& binding_;
};

}  // namespace platform::framework
