// A file that goes away with its object.
#pragma once

#include <gtest/gtest.h>
#include <unistd.h>

#include <cstdio>
#include <string>
#include <string_view>

namespace zpregmon {

class TemporaryFile {
public:
    explicit TemporaryFile(std::string_view contents = {})
        : path_(testing::TempDir() + "zpregmon_test_XXXXXX") {
        const int file = mkstemp(path_.data());
        EXPECT_NE(file, -1);
        EXPECT_EQ(write(file, contents.data(), contents.size()),
                  static_cast<ssize_t>(contents.size()));
        close(file);
    }
    ~TemporaryFile() { unlink(path_.c_str()); }
    TemporaryFile(const TemporaryFile&) = delete;
    TemporaryFile& operator=(const TemporaryFile&) = delete;
    const std::string& Path() const { return path_; }

private:
    std::string path_;
};

/// The header line of workloads, with these initial keys (JSON strings with commas).
inline std::string WorkloadHeader(const std::string& initialKeys = R"("\\Registry\\Machine")") {
    return R"({"format":"registry-workload","version":1,"source":"test","initial_keys":[)" +
           initialKeys + "]}\n";
}

/// A process's first and last line.
inline std::string Start(int pid, int creator = 0) {
    return R"({"op":"process-start","pid":)" + std::to_string(pid) + R"(,"tid":)" +
           std::to_string(pid + 4) + R"(,"parent":)" + std::to_string(creator) +
           R"(,"creator_pid":)" + std::to_string(creator) +
           R"(,"creator_tid":0,"image":"C:\\windows\\p)" + std::to_string(pid) + R"(.exe"})" + "\n";
}
inline std::string Exit(int pid) {
    return R"({"op":"process-exit","pid":)" + std::to_string(pid) + R"(,"tid":1,"exit_code":0})" +
           "\n";
}

}  // namespace zpregmon
