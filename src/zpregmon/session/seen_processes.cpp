#include "zpregmon/session/seen_processes.h"

namespace zpregmon {

void SeenProcesses::See(const Event& event) {
    const auto known = processes_.find(event.ProcessId());
    if (known != processes_.end() && known->second.key == event.ProcessKey()) {
        return;
    }
    std::optional<std::u16string> image = lookup_(event.ProcessId(), event.SystemTime());
    const std::u16string* const text = image ? &*images_.insert(std::move(*image)).first : nullptr;
    processes_[event.ProcessId()] = {event.ProcessKey(), text};
}

const std::u16string* SeenProcesses::Find(std::uint32_t processId) const {
    const auto known = processes_.find(processId);
    return known != processes_.end() ? known->second.image : nullptr;
}

}  // namespace zpregmon
