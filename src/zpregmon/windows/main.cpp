#include "zpregmon/files.h"
#include "zpregmon/program.h"
#include "zpregmon/windows/commands.h"
#include "zpregmon/windows/wide_text.h"

namespace zpregmon {

std::FILE* OpenFile(const std::string& path, const char* mode) {
    return _wfopen(ToWide(path).c_str(), ToWide(mode).c_str());
}

void AddSystemCommands(CLI::App& app, ChosenCommand& chosen) {
    AddMonitorCommand(app, chosen);
    AddInstallCommand(app, chosen);
    AddUninstallCommand(app, chosen);
    AddStartCommand(app, chosen);
    AddStopCommand(app, chosen);
}

}  // namespace zpregmon

int wmain(int argc, wchar_t** argv) {
    std::vector<std::string> arguments;
    for (int i = 1; i < argc; ++i) {
        arguments.push_back(zpregmon::FromWide(argv[i]));
    }
    return zpregmon::RunProgram(std::move(arguments));
}
