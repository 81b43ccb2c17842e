// Starting recorded processes in the machine.
#pragma once

#include "zpregmon/replay/replay_process.h"
#include "zpregmon/replay/workload.h"

#include <memory>

namespace zpregmon {

/// Throws WorkloadError, with the record's line, when a driver refuses.
std::unique_ptr<ReplayProcess> StartRecordedProcess(platform::Machine& machine,
                                                    const Workload& workload, const Record& record);

}  // namespace zpregmon
