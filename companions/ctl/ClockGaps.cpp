#include "companions/ctl/ClockGaps.h"

#include <array>
#include <ctime>

namespace kelto::halvek::ctl {

namespace {

constexpr time_t minute = 60;
constexpr time_t hour = 3600;
constexpr time_t year = hour * 24 * 366;

tm Local(time_t when) {
    tm local{};
    localtime_r(&when, &local);
    return local;
}

int32_t Clock(const tm& local) {
    return local.tm_hour * 100 + local.tm_min;
}

/** The last minute before the clock of an hour is put forward. */
time_t LastMinuteBefore(time_t from, long offset) {
    while (Local(from + minute).tm_gmtoff == offset) {
        from += minute;
    }
    return from;
}

}  // namespace

std::vector<ClockGap> ClockGap::OfTheComingYear(const std::string& zone) {
    tzset();
    std::vector<ClockGap> gaps;
    const time_t now = time(nullptr) / hour * hour;
    tm local = Local(now);
    for (time_t at = now; at < now + year; at += hour) {
        const tm next = Local(at + hour);
        if (next.tm_gmtoff > local.tm_gmtoff) {
            const time_t last = LastMinuteBefore(at, local.tm_gmtoff);
            const tm before = Local(last);
            // What the old offset would call the minute that follows.
            const int32_t from = before.tm_min == 59 ? (before.tm_hour + 1) % 24 * 100 : Clock(before) + 1;
            std::array<char, 32> day{};
            strftime(day.data(), day.size(), "%Y-%m-%d", &before);
            gaps.push_back({day.data(), zone, from, Clock(Local(last + minute))});
        }
        local = next;
    }
    return gaps;
}

}  // namespace kelto::halvek::ctl
