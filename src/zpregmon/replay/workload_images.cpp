#include "zpregmon/replay/workload_images.h"

#include "zpregmon/replay/monitored_machine.h"

namespace zpregmon {

WorkloadImages::WorkloadImages(const Workload& workload) {
    images_[workload.UnusedProcessId()] = MonitoredMachine::kClientImage;
    for (const Record& record : workload.Records()) {
        if (record.op == Op::kProcessStart) {
            images_[record.pid] = MonitoredMachine::DevicePath(record.name);
        }
    }
}

const std::u16string* WorkloadImages::Find(std::uint32_t processId) const {
    const auto found = images_.find(processId);
    return found != images_.end() ? &found->second : nullptr;
}

}  // namespace zpregmon
