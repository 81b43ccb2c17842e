// The program behind every system's main function.
#pragma once

#include <string>
#include <vector>

namespace zpregmon {

/// Does what the command line asks for and returns the exit status. `arguments`: UTF-8, without the
/// program's own name.
int RunProgram(std::vector<std::string> arguments);

}  // namespace zpregmon
