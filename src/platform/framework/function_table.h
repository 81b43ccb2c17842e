// The 432 slots of the framework's function table.
#pragma once

#include <wdf.h>

#include <array>
#include <cstddef>

namespace platform::framework {

/// Name of the function at an index, or null when this project has no use for it.
const char* FunctionName(std::size_t index);

/// A table under construction; each area of the framework enters its functions.
class FunctionTable {
public:
    /// Every slot starts as a routine that stops the machine with the slot's number and name.
    FunctionTable();

    template <typename Result, typename... Arguments>
    void Set(WDFFUNCENUM index, Result(NTAPI* function)(PWDF_DRIVER_GLOBALS, Arguments...)) {
        slots_[index] = reinterpret_cast<WDFFUNC>(function);
    }
    WDFFUNC operator[](std::size_t index) const { return slots_[index]; }

private:
    std::array<WDFFUNC, WDF_FUNCTION_COUNT> slots_;
};

/// The finished table.
const FunctionTable& TheFunctionTable();
/// What a slot of a driver's own table becomes when the driver has unbound.
WDFFUNC UnboundFunction(std::size_t index);

void AddObjectFunctions(FunctionTable& table);
void AddDriverFunctions(FunctionTable& table);
void AddDeviceInitFunctions(FunctionTable& table);
void AddDeviceFunctions(FunctionTable& table);
void AddQueueFunctions(FunctionTable& table);
void AddRequestFunctions(FunctionTable& table);
void AddRequestBufferFunctions(FunctionTable& table);
void AddWorkItemFunctions(FunctionTable& table);

}  // namespace platform::framework
