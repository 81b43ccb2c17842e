#include "zpregmon/command.h"
#include "zpregmon/files.h"
#include "zpregmon/linux/replay_command.h"
#include "zpregmon/program.h"

namespace zpregmon {

std::FILE* OpenFile(const std::string& path, const char* mode) {
    return std::fopen(path.c_str(), mode);
}

void AddSystemCommands(CLI::App& app, ChosenCommand& chosen) {
    AddReplayCommand(app, chosen);
}

}  // namespace zpregmon

int main(int argc, char** argv) {
    return zpregmon::RunProgram({argv + 1, argv + argc});
}
