// What a replay came to, for people.
#pragma once

#include "zpregmon/replay/monitored_replay.h"

#include <string>

namespace zpregmon {

/// Several lines, each ended. `checked`: with what the comparison came to.
std::string DescribeReplay(const MonitoredReplayResult& result, const std::string& workloadPath,
                           bool checked);

}  // namespace zpregmon
