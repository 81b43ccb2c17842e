// The files that recorded programs load hives from and save them to, as files of the host.
#pragma once

#include <filesystem>
#include <mutex>
#include <string>
#include <string_view>

namespace zpregmon {

/// A directory that is made when the first file is asked for and goes with its contents. For any
/// number of threads at once.
class HiveFiles {
public:
    HiveFiles() = default;
    ~HiveFiles();
    HiveFiles(const HiveFiles&) = delete;
    HiveFiles& operator=(const HiveFiles&) = delete;

    /// The name by which the machine opens what stands for the recorded file; the same name in
    /// another case is the same file. What was in a file that the recording does not show being
    /// saved is not known: loaded, it becomes an empty hive, as a missing file does on Windows.
    /// Throws std::filesystem::filesystem_error.
    std::u16string NameOf(std::u16string_view recorded);

private:
    std::mutex lock_;
    std::filesystem::path directory_;  ///< guarded by lock_; empty: not made yet
};

}  // namespace zpregmon
