// Times of events as text.
#pragma once

#include <cstdint>
#include <string>
#include <string_view>

namespace zpregmon {

/// Writes a time in 100-nanosecond intervals since 1601 as 2026-11-22T19:42:51.1234567 (UTC).
/// Events of one second share the work for their date.
class EventTimeText {
public:
    /// Valid until the next call.
    std::string_view Write(std::uint64_t time);
    /// The same without the date: 19:42:51.1234567.
    std::string_view WriteTimeOfDay(std::uint64_t time);

private:
    std::uint64_t second_ = ~std::uint64_t{0};
    std::string text_;
    std::size_t timeOfDay_ = 0;  ///< where in `text_` the date's T ends
    std::size_t fraction_ = 0;   ///< where in `text_` the decimals start
};

/// Milliseconds since 1970 (UTC); negative before.
std::int64_t UnixMilliseconds(std::uint64_t time);

}  // namespace zpregmon
