#include "zpregmon/files.h"

#include "zpregmon/command.h"

#include <fmt/format.h>

#include <cerrno>
#include <cstring>
#include <filesystem>

namespace zpregmon {

namespace {

File Open(const std::string& path, const char* mode, std::FILE* standard, const char* purpose) {
    File file(path == "-" ? standard : std::fopen(path.c_str(), mode));
    if (!file) {
        throw UsageError(fmt::format("{}: cannot {}: {}", path, purpose, std::strerror(errno)));
    }
    return file;
}

}  // namespace

File OpenToRead(const std::string& path) {
    if (std::error_code error; path != "-" && std::filesystem::is_directory(path, error)) {
        throw UsageError(fmt::format("{}: cannot read: it is a directory", path));
    }
    return Open(path, "rb", stdin, "open");
}

File OpenToWrite(const std::string& path) {
    return Open(path, "wb", stdout, "write");
}

void CheckWritable(const std::string& path) {
    Open(path, "ab", stdout, "write");
}

void CheckDifferent(const std::string& input, const std::string& output) {
    std::error_code error;
    if (input != "-" && output != "-" && std::filesystem::is_regular_file(input, error) &&
        std::filesystem::equivalent(input, output, error)) {
        throw UsageError(fmt::format("{}: cannot write: it is read, too", output));
    }
}

}  // namespace zpregmon
