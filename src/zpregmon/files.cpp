#include "zpregmon/files.h"

#include "zpregmon/command.h"

#include <fmt/format.h>

#include <cerrno>
#include <cstring>
#include <filesystem>

namespace zpregmon {

namespace {

/// A plain string would be taken for text of the system's own encoding.
std::filesystem::path PathOf(const std::string& text) {
    return std::u8string(text.begin(), text.end());
}

File Open(const std::string& path, const char* mode, std::FILE* standard, const char* purpose) {
    File file(path == "-" ? standard : OpenFile(path, mode));
    if (!file) {
        throw UsageError(fmt::format("{}: cannot {}: {}", path, purpose, std::strerror(errno)));
    }
    return file;
}

}  // namespace

File OpenToRead(const std::string& path) {
    if (std::error_code error; path != "-" && std::filesystem::is_directory(PathOf(path), error)) {
        throw UsageError(fmt::format("{}: cannot read: it is a directory", path));
    }
    return Open(path, "rb", stdin, "open");
}

File OpenToWrite(const std::string& path) {
    return Open(path, "wb", stdout, "write");
}

void CheckWritable(const std::string& path) {
    std::error_code error;
    const bool exists = path != "-" && std::filesystem::exists(PathOf(path), error);
    if (path == "-" || (exists && !std::filesystem::is_regular_file(PathOf(path), error))) {
        throw UsageError(fmt::format("{}: cannot write: expected a regular file", path));
    }
    Open(path, "ab", nullptr, "write");
}

void CheckDifferent(const std::string& other, const std::string& output) {
    std::error_code error;
    if (other != "-" && output != "-" && std::filesystem::is_regular_file(PathOf(other), error) &&
        std::filesystem::equivalent(PathOf(other), PathOf(output), error)) {
        throw UsageError(
            fmt::format("{}: cannot write: the command line names this file twice", output));
    }
}

std::string NameOfFile(const std::string& path, const char* standardStream) {
    return path == "-" ? standardStream : path;
}

}  // namespace zpregmon
