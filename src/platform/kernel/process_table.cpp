#include "platform/kernel/process_table.h"

#include <atomic>
#include <map>
#include <mutex>
#include <shared_mutex>

namespace platform {

namespace {

struct ProcessTable {
    std::shared_mutex lock;
    std::map<std::uintptr_t, ObjectRef<Process>> processes;
};

ProcessTable& Table() {
    static ProcessTable table;
    return table;
}

}  // namespace

std::uintptr_t AllocateId() {
    static std::atomic<std::uintptr_t> next{kSystemProcessId + 4};
    return next.fetch_add(4, std::memory_order_relaxed);
}

bool EnterProcess(Process& process) {
    if (process.Id() == kSystemProcessId) return false;
    ProcessTable& table = Table();
    const std::unique_lock guard(table.lock);
    return table.processes.try_emplace(process.Id(), ObjectRef<Process>(&process)).second;
}

void RemoveProcess(Process& process) {
    ObjectRef<Process> removed;  // dropped outside of the lock
    ProcessTable& table = Table();
    const std::unique_lock guard(table.lock);
    const auto found = table.processes.find(process.Id());
    if (found == table.processes.end() || found->second.get() != &process) return;
    removed = std::move(found->second);
    table.processes.erase(found);
}

ObjectRef<Process> FindProcess(std::uintptr_t id) {
    if (id == kSystemProcessId) return ObjectRef<Process>(&SystemProcess());
    ProcessTable& table = Table();
    const std::shared_lock guard(table.lock);
    const auto found = table.processes.find(id);
    return found == table.processes.end() ? ObjectRef<Process>() : found->second;
}

std::vector<ObjectRef<Process>> LiveProcesses() {
    ProcessTable& table = Table();
    const std::shared_lock guard(table.lock);
    std::vector<ObjectRef<Process>> live;
    for (const auto& [id, process] : table.processes) {
        live.push_back(process);
    }
    return live;
}

}  // namespace platform
