#include "platform/framework/function_table.h"

#include "platform/kernel/verifier.h"

#include <string>
#include <utility>

namespace platform::framework {

namespace {

[[noreturn]] void StopAtSlot(std::size_t index, const char* why) {
    const char* name = FunctionName(index);
    Violation(Rule::kNotOffered, "framework function table: slot " + std::to_string(index) +
                                     (name == nullptr ? "" : " (" + std::string(name) + ")") + " " +
                                     why);
}

template <std::size_t Index>
void NTAPI NotOffered() {
    StopAtSlot(Index, "is not offered");
}
template <std::size_t Index>
void NTAPI CalledAfterUnbind() {
    StopAtSlot(Index, "was called after WdfVersionUnbind");
}

using Slots = std::array<WDFFUNC, WDF_FUNCTION_COUNT>;

template <std::size_t... Indices>
Slots NotOfferedSlots(std::index_sequence<Indices...>) {
    return {reinterpret_cast<WDFFUNC>(&NotOffered<Indices>)...};
}
template <std::size_t... Indices>
Slots UnboundSlots(std::index_sequence<Indices...>) {
    return {reinterpret_cast<WDFFUNC>(&CalledAfterUnbind<Indices>)...};
}

using AllIndices = std::make_index_sequence<WDF_FUNCTION_COUNT>;

}  // namespace

FunctionTable::FunctionTable() : slots_(NotOfferedSlots(AllIndices{})) {}

const FunctionTable& TheFunctionTable() {
    static const FunctionTable table = [] {
        FunctionTable made;
        AddObjectFunctions(made);
        AddDriverFunctions(made);
        AddDeviceInitFunctions(made);
        AddDeviceFunctions(made);
        AddQueueFunctions(made);
        AddRequestFunctions(made);
        AddRequestBufferFunctions(made);
        AddWorkItemFunctions(made);
        return made;
    }();
    return table;
}

WDFFUNC UnboundFunction(std::size_t index) {
    static const Slots slots = UnboundSlots(AllIndices{});
    return slots[index];
}

}  // namespace platform::framework
