#include "client/event_time.h"

namespace zpregmon {

namespace {

constexpr std::uint64_t kTicksPerSecond = 10'000'000;
constexpr std::uint64_t kSecondsPerDay = 86400;
constexpr unsigned kDecimals = 7;
/// The longest time that there is: in the year 60056.
constexpr std::size_t kMostText = sizeof("60056-05-28T05:36:10.9551615");

/// Exactly `digits` digits, and where they end.
char* PutDigits(char* out, std::uint32_t number, unsigned digits) {
    for (unsigned at = digits; at != 0; number /= 10) {
        out[--at] = static_cast<char>('0' + number % 10);
    }
    return out + digits;
}

/// std::chrono's years end before those of the system do. Months are counted from March on here, so
/// that the leap day is a year's last one, and years in cycles of 400 from 1 March 1600 on.
char* PutDate(char* out, std::uint64_t daysSince1601) {
    constexpr std::uint64_t kDaysPerCycle = 146097, kDaysPerCentury = 36524, kDaysPerFour = 1461,
                            kDaysPerYear = 365, kDaysFromMarch1600 = 306;
    const std::uint64_t days = daysSince1601 + kDaysFromMarch1600;
    const std::uint64_t inCycle = days % kDaysPerCycle;
    const std::uint64_t yearInCycle = (inCycle - inCycle / (kDaysPerFour - 1) +
                                       inCycle / kDaysPerCentury - inCycle / (kDaysPerCycle - 1)) /
                                      kDaysPerYear;
    const std::uint64_t inYear =
        inCycle - (kDaysPerYear * yearInCycle + yearInCycle / 4 - yearInCycle / 100);
    const std::uint64_t month = (5 * inYear + 2) / 153;  // five months have 153 days
    const std::uint64_t day = inYear - (153 * month + 2) / 5 + 1;
    const std::uint64_t year =
        1600 + days / kDaysPerCycle * 400 + yearInCycle + (month >= 10 ? 1 : 0);
    out = PutDigits(out, static_cast<std::uint32_t>(year), year >= 10000 ? 5 : 4);
    *out++ = '-';
    out = PutDigits(out, static_cast<std::uint32_t>(month < 10 ? month + 3 : month - 9), 2);
    *out++ = '-';
    return PutDigits(out, static_cast<std::uint32_t>(day), 2);
}

}  // namespace

std::string_view EventTimeText::Write(std::uint64_t time) {
    if (const std::uint64_t second = time / kTicksPerSecond; second != second_) {
        second_ = second;
        text_.resize(kMostText);
        char* out = PutDate(text_.data(), second / kSecondsPerDay);
        *out++ = 'T';
        timeOfDay_ = static_cast<std::size_t>(out - text_.data());
        const auto inDay = static_cast<std::uint32_t>(second % kSecondsPerDay);
        out = PutDigits(out, inDay / 3600, 2);
        *out++ = ':';
        out = PutDigits(out, inDay / 60 % 60, 2);
        *out++ = ':';
        out = PutDigits(out, inDay % 60, 2);
        *out++ = '.';
        fraction_ = static_cast<std::size_t>(out - text_.data());
        text_.resize(fraction_ + kDecimals);
    }
    PutDigits(text_.data() + fraction_, static_cast<std::uint32_t>(time % kTicksPerSecond),
              kDecimals);
    return text_;
}

std::string_view EventTimeText::WriteTimeOfDay(std::uint64_t time) {
    return Write(time).substr(timeOfDay_);
}

std::int64_t UnixMilliseconds(std::uint64_t time) {
    constexpr std::int64_t kEpochOffset = 11'644'473'600'000;  // 1601 to 1970
    constexpr std::uint64_t kTicksPerMillisecond = 10'000;
    return static_cast<std::int64_t>(time / kTicksPerMillisecond) - kEpochOffset;
}

}  // namespace zpregmon
