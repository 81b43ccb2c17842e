// The commands that the program has only on Windows.
#pragma once

#include "zpregmon/command.h"

namespace zpregmon {

void AddMonitorCommand(CLI::App& app, ChosenCommand& chosen);
void AddInstallCommand(CLI::App& app, ChosenCommand& chosen);
void AddUninstallCommand(CLI::App& app, ChosenCommand& chosen);
void AddStartCommand(CLI::App& app, ChosenCommand& chosen);
void AddStopCommand(CLI::App& app, ChosenCommand& chosen);

}  // namespace zpregmon
