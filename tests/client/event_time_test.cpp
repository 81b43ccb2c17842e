#include "client/event_time.h"

#include <gtest/gtest.h>

#include <chrono>

namespace zpregmon {
namespace {

constexpr std::uint64_t kTicksPerDay = 864'000'000'000;

/// Every day of more than 400 years, against the C++ library.
TEST(EventTime, KnowsEveryDay) {
    using namespace std::chrono;
    EventTimeText text;
    for (int day = 0; day < 150'000; ++day) {
        const year_month_day date = sys_days(year{1601} / January / 1) + days{day};
        std::array<char, 32> expected;
        std::snprintf(expected.data(), expected.size(), "%04d-%02u-%02uT23:59:59.9999999",
                      static_cast<int>(date.year()), static_cast<unsigned>(date.month()),
                      static_cast<unsigned>(date.day()));
        const std::uint64_t lastTick = kTicksPerDay * (static_cast<std::uint64_t>(day) + 1) - 1;
        ASSERT_EQ(text.Write(lastTick), expected.data()) << "day " << day;
    }
}

TEST(EventTime, KnowsTheLastOne) {
    EventTimeText text;
    EXPECT_EQ(text.Write(~std::uint64_t{0}), "60056-05-28T05:36:10.9551615");
    EXPECT_EQ(text.WriteTimeOfDay(~std::uint64_t{0}), "05:36:10.9551615");
    EXPECT_EQ(text.WriteTimeOfDay(0), "00:00:00.0000000");
    EXPECT_EQ(UnixMilliseconds(0), -11'644'473'600'000);
}

}  // namespace
}  // namespace zpregmon
