// Events over time, as a picture in a terminal.
#pragma once

#include <cstddef>
#include <cstdint>
#include <map>
#include <string>

namespace zpregmon {

/// Counts times in any order, in little memory: the more time they span, the coarser.
class TimeHistogram {
public:
    /// `time` as Event::systemTime.
    void Add(std::uint64_t time);
    /// Bars, rows of them, above a line with the first and last time. Nothing when nothing was
    /// counted.
    std::string Draw(std::size_t columns) const;

private:
    static constexpr std::size_t kMostSlots = 4096;

    std::uint64_t first_ = ~std::uint64_t{0};
    std::uint64_t last_ = 0;
    unsigned shift_ = 0;  ///< a slot is this many binary digits of time wide
    std::map<std::uint64_t, std::uint64_t> slots_;
};

}  // namespace zpregmon
