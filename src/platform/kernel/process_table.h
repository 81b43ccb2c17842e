// Process ids: which process an id names while the process lives. Thread ids come from the same
// sequence.
#pragma once

#include "platform/kernel/process.h"

#include <cstdint>
#include <vector>

namespace platform {

/// A multiple of 4 that no process or thread was given before.
std::uintptr_t AllocateId();

/// The table keeps a reference to the process until it is removed. False when the id is taken.
bool EnterProcess(Process& process);
void RemoveProcess(Process& process);
/// Null when no process has the id.
ObjectRef<Process> FindProcess(std::uintptr_t id);
/// All but the system process, by id.
std::vector<ObjectRef<Process>> LiveProcesses();

}  // namespace platform
