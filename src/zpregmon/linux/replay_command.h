// Replaying workloads on the platform that stands in for the kernel.
#pragma once

#include "zpregmon/command.h"

namespace zpregmon {

void AddReplayCommand(CLI::App& app, ChosenCommand& chosen);

}  // namespace zpregmon
