// Files that the command line names; "-" is a standard stream.
#pragma once

#include <cstdio>
#include <memory>
#include <string>

namespace zpregmon {

/// Standard streams stay open.
struct CloseFile {
    void operator()(std::FILE* file) const {
        if (file != stdin && file != stdout) {
            std::fclose(file);
        }
    }
};
using File = std::unique_ptr<std::FILE, CloseFile>;

/// As std::fopen; the path is UTF-8 on every system.
std::FILE* OpenFile(const std::string& path, const char* mode);

/// Throw UsageError. A file to write is made anew.
File OpenToRead(const std::string& path);
File OpenToWrite(const std::string& path);
/// Throws UsageError unless it is a regular file, which is made if there is none, that can be
/// written to; nothing in it is changed.
void CheckWritable(const std::string& path);
/// Throws UsageError when both name one file that there is: writing `output` would destroy the
/// other.
void CheckDifferent(const std::string& other, const std::string& output);
/// The path as messages have it.
std::string NameOfFile(const std::string& path, const char* standardStream);

}  // namespace zpregmon
