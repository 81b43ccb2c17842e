#include "zpregmon/session/seen_processes.h"

namespace zpregmon {

bool MayBeOf(std::uint64_t began, std::uint64_t eventTime, std::uint64_t now) {
    // An event has the time of the last tick of the system's clock, up to 16 milliseconds ago; the
    // begin of a process is from a more precise clock on some systems, and so may lie after it.
    constexpr std::uint64_t kTick = 160'000;
    // Nothing begins later than now, unless the clock was set back since: then every process that
    // began before that seems to be later than its events, and times tell nothing.
    return began <= eventTime + kTick || began > now + kTick;
}

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
