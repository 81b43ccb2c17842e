// The images of the processes whose events are seen.
#pragma once

#include "client/format.h"

#include <cstdint>
#include <functional>
#include <optional>
#include <string>
#include <unordered_map>
#include <unordered_set>

namespace zpregmon {

/// Whether a process with an event's process id may be the one that the event is of: another one
/// with that id began later. `now`: when the process was looked at. 100-nanosecond intervals.
bool MayBeOf(std::uint64_t began, std::uint64_t eventTime, std::uint64_t now);

/// Asks the system once for each process, when the first of its events is seen. A process that was
/// gone by then has no image. For one thread at a time.
class SeenProcesses final : public ProcessImages {
public:
    /// The image of the process that had this id at that time (Event::systemTime), if it still
    /// runs.
    using Lookup =
        std::function<std::optional<std::u16string>(std::uint32_t processId, std::uint64_t time)>;

    explicit SeenProcesses(Lookup lookup) : lookup_(std::move(lookup)) {}

    /// From now on the event's process is meant by its id, until an event of another process with
    /// that id is seen: the system gives ids again, the process key tells.
    void See(const Event& event);
    const std::u16string* Find(std::uint32_t processId) const override;

private:
    struct Process {
        std::uint64_t key;
        const std::u16string* image;  ///< in images_; null: not known
    };

    Lookup lookup_;
    std::unordered_map<std::uint32_t, Process> processes_;
    /// Never shrinks: who was given a text may compare its address with a later one.
    std::unordered_set<std::u16string> images_;
};

}  // namespace zpregmon
