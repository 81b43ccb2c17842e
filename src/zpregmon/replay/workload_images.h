// The image paths of the processes in a replay.
#pragma once

#include "client/format.h"
#include "zpregmon/replay/workload.h"

#include <string>
#include <unordered_map>

namespace zpregmon {

/// Does not change once made: any thread may look.
class WorkloadImages final : public ProcessImages {
public:
    explicit WorkloadImages(const Workload& workload);
    const std::u16string* Find(std::uint32_t processId) const override;

private:
    std::unordered_map<std::uint32_t, std::u16string> images_;
};

}  // namespace zpregmon
