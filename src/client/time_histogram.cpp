#include "client/time_histogram.h"

#include "client/event_time.h"

#include <fmt/format.h>

#include <algorithm>
#include <string_view>
#include <vector>

namespace zpregmon {

namespace {

constexpr std::size_t kRows = 6;
constexpr std::size_t kStepsPerRow = 8;
constexpr std::size_t kLabelWidth = 9;  ///< of the counts on the left, with a space behind
constexpr std::string_view kBlocks[kStepsPerRow + 1] = {
    " ", "\u2581", "\u2582", "\u2583", "\u2584", "\u2585", "\u2586", "\u2587", "\u2588"};

std::string ShortTime(std::uint64_t time) {
    constexpr std::size_t kSurplusDecimals = 4;
    EventTimeText text;
    const std::string_view whole = text.Write(time);
    return std::string(whole.substr(0, whole.size() - kSurplusDecimals));
}

}  // namespace

void TimeHistogram::Add(std::uint64_t time) {
    first_ = std::min(first_, time);
    last_ = std::max(last_, time);
    ++slots_[time >> shift_];
    while (slots_.size() > kMostSlots) {
        ++shift_;
        std::map<std::uint64_t, std::uint64_t> coarser;
        for (const auto& [slot, count] : slots_) {
            coarser[slot >> 1] += count;
        }
        slots_ = std::move(coarser);
    }
}

std::string TimeHistogram::Draw(std::size_t columns) const {
    if (slots_.empty()) {
        return {};
    }
    const std::size_t width = std::max<std::size_t>(columns, kLabelWidth + 31) - kLabelWidth;
    std::vector<std::uint64_t> bars(width);
    const double span = static_cast<double>(last_ - first_) + 1;
    for (const auto& [slot, count] : slots_) {
        const std::uint64_t time = std::max(slot << shift_, first_);
        const double part = static_cast<double>(time - first_) / span;
        const auto bar = static_cast<std::size_t>(part * static_cast<double>(width));
        bars[std::min(bar, width - 1)] += count;
    }
    const std::uint64_t most = *std::max_element(bars.begin(), bars.end());
    std::string text;
    for (std::size_t row = kRows; row-- > 0;) {
        text += row == kRows - 1 ? fmt::format("{:>{}} ", most, kLabelWidth - 1)
                                 : std::string(kLabelWidth, ' ');
        for (const std::uint64_t count : bars) {
            // Rounded up: a single event shows.
            const double share = static_cast<double>(count) / static_cast<double>(most);
            const auto steps = static_cast<std::size_t>(share * kRows * kStepsPerRow + 0.999);
            const std::size_t below = row * kStepsPerRow;
            text += kBlocks[std::min(steps > below ? steps - below : 0, kStepsPerRow)];
        }
        text.erase(text.find_last_not_of(' ') + 1);
        text += '\n';
    }
    const std::string start = ShortTime(first_);
    const std::string end = ShortTime(last_);
    text += std::string(kLabelWidth, ' ') + start;
    text +=
        fmt::format("{:>{}}\n", end, std::max(width, start.size() + 1 + end.size()) - start.size());
    return text;
}

}  // namespace zpregmon
