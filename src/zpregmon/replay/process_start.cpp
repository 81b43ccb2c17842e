#include "zpregmon/replay/process_start.h"

#include "zpregmon/replay/monitored_machine.h"

#include <fmt/format.h>

namespace zpregmon {

std::unique_ptr<ReplayProcess> StartRecordedProcess(platform::Machine& machine,
                                                    const Workload& workload,
                                                    const Record& record) {
    platform::ProcessOptions options;
    options.imagePath = MonitoredMachine::DevicePath(record.name);
    options.id = record.pid;
    options.parentId = record.parent;
    auto process = machine.StartProcess(options);
    if (!process) {
        throw WorkloadError(fmt::format("{}:{}: the machine refuses to start process {}",
                                        workload.Path(), record.line, record.pid));
    }
    return std::make_unique<ReplayProcess>(std::move(process));
}

}  // namespace zpregmon
