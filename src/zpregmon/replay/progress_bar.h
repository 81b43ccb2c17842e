// A progress bar on a terminal.
#pragma once

#include <atomic>
#include <condition_variable>
#include <cstdint>
#include <cstdio>
#include <mutex>
#include <thread>

namespace zpregmon {

/// Draws on `file` how far `done` has come to `total`, a few times a second, from a thread of its
/// own, until it is destroyed; then the line is empty again.
class ProgressBar {
public:
    ProgressBar(std::FILE* file, const std::atomic<std::uint64_t>& done, std::uint64_t total);
    ~ProgressBar();
    ProgressBar(const ProgressBar&) = delete;
    ProgressBar& operator=(const ProgressBar&) = delete;

private:
    void Run();
    void Draw() const;

    std::FILE* file_;
    const std::atomic<std::uint64_t>& done_;
    const std::uint64_t total_;
    std::mutex lock_;
    std::condition_variable ended_;
    bool ends_ = false;  ///< guarded by lock_
    std::thread thread_;
};

}  // namespace zpregmon
