#include "client/event_time.h"

#include <fmt/format.h>

#include <chrono>

namespace zpregmon {

namespace {

constexpr std::uint64_t kTicksPerSecond = 10'000'000;
constexpr int kDecimals = 7;

}  // namespace

std::string_view EventTimeText::Write(std::uint64_t time) {
    if (const std::uint64_t second = time / kTicksPerSecond; second != second_) {
        using namespace std::chrono;
        second_ = second;
        const sys_days start = year{1601} / January / 1;
        const auto wholeDays = static_cast<int>(second / 86400);
        const year_month_day date = start + days{wholeDays};
        const auto inDay = static_cast<unsigned>(second % 86400);
        text_ = fmt::format("{:04}-{:02}-{:02}T", static_cast<int>(date.year()),
                            static_cast<unsigned>(date.month()), static_cast<unsigned>(date.day()));
        timeOfDay_ = text_.size();
        text_ += fmt::format("{:02}:{:02}:{:02}.", inDay / 3600, inDay / 60 % 60, inDay % 60);
        fraction_ = text_.size();
        text_.resize(fraction_ + kDecimals);
    }
    auto rest = static_cast<std::uint32_t>(time % kTicksPerSecond);
    for (std::size_t at = text_.size(); at > fraction_; rest /= 10) {
        text_[--at] = static_cast<char>('0' + rest % 10);
    }
    return text_;
}

std::string_view EventTimeText::WriteTimeOfDay(std::uint64_t time) {
    return Write(time).substr(timeOfDay_);
}

}  // namespace zpregmon
