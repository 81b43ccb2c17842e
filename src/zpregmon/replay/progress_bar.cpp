#include "zpregmon/replay/progress_bar.h"

#include <fmt/format.h>

#include <algorithm>
#include <chrono>

namespace zpregmon {

namespace {

constexpr auto kInterval = std::chrono::milliseconds(100);
constexpr std::uint64_t kWidth = 40;
/// Back to the line's beginning, and everything on it away.
constexpr const char* kClearLine = "\r\x1b[K";

}  // namespace

ProgressBar::ProgressBar(std::FILE* file, const std::atomic<std::uint64_t>& done,
                         std::uint64_t total)
    : file_(file), done_(done), total_(std::max<std::uint64_t>(1, total)) {
    thread_ = std::thread([this] { Run(); });
}

ProgressBar::~ProgressBar() {
    {
        const std::lock_guard guard(lock_);
        ends_ = true;
    }
    ended_.notify_all();
    thread_.join();
    std::fputs(kClearLine, file_);
}

void ProgressBar::Run() {
    std::unique_lock guard(lock_);
    // The first look comes late: what is over at once needs no bar.
    while (!ended_.wait_for(guard, kInterval, [this] { return ends_; })) {
        Draw();
    }
}

void ProgressBar::Draw() const {
    const std::uint64_t done = std::min(done_.load(std::memory_order_relaxed), total_);
    const std::string line = fmt::format("{}[{:<{}}] {:3}% {}/{} records", kClearLine,
                                         std::string(done * kWidth / total_, '#'), kWidth,
                                         done * 100 / total_, done, total_);
    std::fputs(line.c_str(), file_);
    std::fflush(file_);
}

}  // namespace zpregmon
