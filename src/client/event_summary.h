// Counts events: by kind, process, key subtree, changed value and time.
#pragma once

#include "client/event.h"
#include "client/time_histogram.h"

#include <array>
#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>
#include <unordered_map>

namespace zpregmon {

struct SummarySettings {
    std::size_t top = 10;     ///< lines of each list
    std::size_t depth = 3;    ///< parts of a path that make a subtree: HKLM\Software\Microsoft
    std::size_t columns = 0;  ///< of the terminal; 0: to none, nothing is cut
};

/// Takes memory for each process, subtree and changed value that it has seen. Paths and names that
/// differ only in case are counted together, under the spelling that came first.
class EventSummary {
public:
    explicit EventSummary(const SummarySettings& settings) : settings_(settings) {}

    void Add(const Event& event);
    std::uint64_t Events() const { return events_; }
    /// Several lines, each ended, in UTF-8.
    std::string Describe() const;

private:
    struct Counted {
        std::string text;
        std::uint64_t count = 0;
    };

    void AddChange(const Event& event);
    void DescribeKinds(std::string& text) const;
    /// The highest counts first.
    template <typename Counts>
    void DescribeCounts(std::string_view heading, const Counts& counted, std::string& text) const;

    SummarySettings settings_;
    std::uint64_t events_ = 0;
    std::array<std::uint64_t, zpregflt::kLastRecordType + 1> kinds_{};
    std::unordered_map<std::uint32_t, Counted> processes_;
    std::unordered_map<std::u16string, Counted> subtrees_;
    std::unordered_map<std::u16string, Counted> changes_;
    TimeHistogram times_;
};

}  // namespace zpregmon
