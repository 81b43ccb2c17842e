// Runs the program as people run it.
#pragma once

#include <sys/wait.h>

#include <array>
#include <cstdio>
#include <filesystem>
#include <string>

namespace zpregmon {

struct Finished {
    int status;
    std::string output;
};

/// The program lies beside the tests; a shell that does not find it ends with status 127.
inline std::string ProgramPath() {
    return (std::filesystem::read_symlink("/proc/self/exe").parent_path() / "zpregmon").string();
}

inline Finished RunShell(const std::string& command) {
    std::FILE* const pipe = popen(command.c_str(), "r");
    std::string output;
    std::array<char, 4096> piece;
    while (const std::size_t got = std::fread(piece.data(), 1, piece.size(), pipe)) {
        output.append(piece.data(), got);
    }
    const int status = pclose(pipe);
    return {WIFEXITED(status) ? WEXITSTATUS(status) : -1, output};
}

/// Runs the program and keeps what it says on standard error.
inline Finished Complaints(const std::string& arguments) {
    return RunShell("'" + ProgramPath() + "' " + arguments + " 2>&1 >/dev/null");
}

}  // namespace zpregmon
