#include "companions/ctl/LocalTime.h"

#include "companions/ctl/Failure.h"

#include <array>
#include <cstdio>
#include <cstdlib>
#include <ctime>
#include <string_view>

namespace kelto::halvek::ctl {

namespace {

constexpr int64_t minuteSeconds = 60;
constexpr int64_t hourSeconds = 60 * minuteSeconds;
constexpr int64_t daySeconds = 24 * hourSeconds;

/** Reads a text from the front. What does not fit is remembered, and costs nothing before the end. */
class TimeText {
public:
    explicit TimeText(std::string_view wholeText) : rest(wholeText) {}

    /** So many digits as a number. */
    int Number(size_t digits) {
        int number = 0;
        for (size_t i = 0; i < digits; ++i) {
            if (rest.empty() || rest.front() < '0' || rest.front() > '9') {
                fits = false;
                return 0;
            }
            number = number * 10 + (rest.front() - '0');
            rest.remove_prefix(1);
        }
        return number;
    }

    /** At least one digit. */
    void TakeDigits() {
        Number(1);
        while (!rest.empty() && rest.front() >= '0' && rest.front() <= '9') {
            rest.remove_prefix(1);
        }
    }

    bool TakeIf(char character) {
        const bool isThere = rest.starts_with(character);
        rest.remove_prefix(isThere ? 1 : 0);
        return isThere;
    }

    void Take(char character) { fits = TakeIf(character) && fits; }
    void Check(bool holds) { fits = fits && holds; }
    bool AtEnd() const { return rest.empty(); }
    bool Fits() const { return fits && rest.empty(); }

private:
    std::string_view rest;
    bool fits = true;
};

tm ToTm(const Date& date) {
    tm broken{};
    broken.tm_year = date.year - 1900;
    broken.tm_mon = date.month - 1;
    broken.tm_mday = date.day;
    return broken;
}

/** As if the clocks of the day were those of UTC. */
int64_t AsUtc(const Date& date) {
    tm broken = ToTm(date);
    return timegm(&broken);
}

Date TakeDate(TimeText& text) {
    Date date{};
    date.year = text.Number(4);
    text.Take('-');
    date.month = text.Number(2);
    text.Take('-');
    date.day = text.Number(2);
    // What is no day becomes another one.
    text.Check(date.Plus(0) == date);
    return date;
}

/** Seconds since midnight. */
int64_t TakeClock(TimeText& text) {
    const int hour = text.Number(2);
    text.Take(':');
    const int minute = text.Number(2);
    const int second = text.TakeIf(':') ? text.Number(2) : 0;
    if (text.TakeIf('.')) {
        text.TakeDigits();
    }
    text.Check(hour < 24 && minute < 60 && second < 60);
    return hour * hourSeconds + minute * minuteSeconds + second;
}

std::optional<int64_t> TakeOffset(TimeText& text) {
    if (text.AtEnd()) {
        return std::nullopt;
    }
    if (text.TakeIf('Z')) {
        return 0;
    }
    const bool isWest = text.TakeIf('-');
    if (!isWest) {
        text.Take('+');
    }
    const int hours = text.Number(2);
    text.TakeIf(':');
    const int minutes = text.AtEnd() ? 0 : text.Number(2);
    text.Check(hours < 24 && minutes < 60);
    const int64_t offset = hours * hourSeconds + minutes * minuteSeconds;
    return isWest ? -offset : offset;
}

/** The first time at which local clocks show what UTC's would at the given one. */
std::optional<int64_t> FindLocal(int64_t asUtc) {
    std::optional<int64_t> first;
    for (const int64_t near : {asUtc - daySeconds, asUtc + daySeconds}) {
        const int64_t candidate = asUtc - LocalTime(near).offset;
        if (candidate + LocalTime(candidate).offset == asUtc && (!first || candidate < *first)) {
            first = candidate;
        }
    }
    return first;
}

}  // namespace

std::string Date::Text() const {
    std::array<char, 32> text{};
    std::snprintf(text.data(), text.size(), "%04d-%02d-%02d", year, month, day);
    return text.data();
}

const char* Date::Weekday() const {
    constexpr std::array names = {"Sun", "Mon", "Tue", "Wed", "Thu", "Fri", "Sat"};
    tm broken = ToTm(*this);
    timegm(&broken);
    return names.at(static_cast<size_t>(broken.tm_wday));
}

Date Date::Plus(int days) const {
    tm broken = ToTm(*this);
    broken.tm_mday += days;
    timegm(&broken);
    return {broken.tm_year + 1900, broken.tm_mon + 1, broken.tm_mday};
}

Date Date::Parse(const std::string& text) {
    TimeText reader(text);
    const Date date = TakeDate(reader);
    if (!reader.Fits()) {
        throw UsageError("a day is written like 2026-11-23, not " + text);
    }
    return date;
}

LocalTime::LocalTime(int64_t time) {
    const auto seconds = static_cast<time_t>(time);
    tm local{};
    localtime_r(&seconds, &local);
    date = {local.tm_year + 1900, local.tm_mon + 1, local.tm_mday};
    hour = local.tm_hour;
    minute = local.tm_min;
    second = local.tm_sec;
    offset = local.tm_gmtoff;
}

std::string LocalTime::Iso() const {
    std::array<char, 32> text{};
    std::snprintf(text.data(), text.size(), "T%02d:%02d:%02d", hour, minute, second);
    return date.Text() + text.data() + OffsetText();
}

std::string LocalTime::OffsetText(int64_t offset) {
    const long long distance = std::llabs(offset);
    std::array<char, 32> text{};
    const int length = std::snprintf(text.data(), text.size(), "%c%02lld:%02lld", offset < 0 ? '-' : '+',
                                     distance / hourSeconds, distance / minuteSeconds % 60);
    if (distance % minuteSeconds != 0) {
        std::snprintf(text.data() + length, text.size() - static_cast<size_t>(length), ":%02lld",
                      distance % minuteSeconds);
    }
    return text.data();
}

int64_t LocalTime::StartOf(const Date& date) {
    const int64_t asUtc = AsUtc(date);
    if (const std::optional<int64_t> midnight = FindLocal(asUtc)) {
        return *midnight;
    }
    // Some hours before, whatever the clocks do around midnight; then minute by minute, for a day may begin at 01:00.
    int64_t time = asUtc - LocalTime(asUtc - daySeconds / 2).offset - 3 * hourSeconds;
    time -= LocalTime(time).second;
    while (LocalTime(time).date >= date) {
        time -= daySeconds;
    }
    while (LocalTime(time).date < date) {
        time += minuteSeconds;
    }
    return time - LocalTime(time).second;
}

int64_t LocalTime::Parse(const std::string& text) {
    TimeText reader(text);
    const Date date = TakeDate(reader);
    if (!reader.TakeIf(' ')) {
        reader.Take('T');
    }
    const int64_t asUtc = AsUtc(date) + TakeClock(reader);
    const std::optional<int64_t> offset = TakeOffset(reader);
    if (!reader.Fits()) {
        throw UsageError("a time is written like 2026-11-23T09:15 or 2026-11-23T09:15:00+01:00, not " + text);
    }
    if (offset) {
        return asUtc - *offset;
    }
    const std::optional<int64_t> time = FindLocal(asUtc);
    if (!time) {
        throw UsageError("the clocks leave out " + text);
    }
    return *time;
}

int64_t LocalTime::Now() {
    timespec now{};
    clock_gettime(CLOCK_REALTIME, &now);
    return now.tv_sec;
}

}  // namespace kelto::halvek::ctl
