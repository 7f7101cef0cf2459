#include "companions/ctl/Calendar.h"

#include <algorithm>
#include <array>
#include <cstdio>

namespace kelto::halvek::ctl {

namespace {

constexpr int64_t minuteSeconds = 60;
constexpr int minutesPerHour = 60;
constexpr int minutesPerCell = 30;
constexpr size_t mostSpansInText = 4;

std::string ClockText(int minuteOfDay) {
    std::array<char, 32> text{};
    std::snprintf(text.data(), text.size(), "%02d:%02d", minuteOfDay / minutesPerHour, minuteOfDay % minutesPerHour);
    return text.data();
}

/** The first second with another offset than the first of two has, and the second one has. */
int64_t FindChange(int64_t before, int64_t after) {
    const int64_t offset = LocalTime(before).offset;
    while (after - before > 1) {
        const int64_t middle = before + (after - before) / 2;
        (LocalTime(middle).offset == offset ? before : after) = middle;
    }
    return after;
}

}  // namespace

LocalDay::LocalDay(const Date& day) : date(day), from(LocalTime::StartOf(day)), to(LocalTime::StartOf(day.Plus(1))) {
    for (int64_t time = from; time < to; time += minuteSeconds) {
        cellOfMinute.push_back(static_cast<uint8_t>(MinuteOfDay(time) / minutesPerCell));
    }
}

int LocalDay::MinuteOfDay(int64_t time) {
    const LocalTime local(time);
    return local.hour * minutesPerHour + local.minute;
}

std::string LocalDay::OffsetText() const {
    // A change at midnight belongs to the day that it begins.
    const LocalTime begin(from - 1);
    const LocalTime end(std::max(from, to - 1));
    return begin.offset == end.offset ? begin.OffsetText() : begin.OffsetText() + ">" + end.OffsetText();
}

std::vector<OpenSpan> LocalDay::Cut(const std::vector<OpenSpan>& spans) const {
    std::vector<OpenSpan> cut;
    for (const OpenSpan& span : spans) {
        const OpenSpan inDay{std::max(span.from, from), std::min(span.to, to)};
        if (inDay.from < inDay.to) {
            cut.push_back(inDay);
        }
    }
    return cut;
}

std::string LocalDay::Strip(const std::vector<OpenSpan>& spans) const {
    std::array<int, cells> minutes{};
    std::array<int, cells> openMinutes{};
    const std::vector<OpenSpan> open = Cut(spans);
    auto span = open.begin();
    int64_t time = from;
    for (const uint8_t cell : cellOfMinute) {
        while (span != open.end() && span->to <= time) {
            ++span;
        }
        ++minutes.at(cell);
        openMinutes.at(cell) += span != open.end() && span->from <= time ? 1 : 0;
        time += minuteSeconds;
    }
    std::string strip(cells, '.');
    for (size_t cell = 0; cell < cells; ++cell) {
        if (openMinutes[cell] > 0) {
            strip[cell] = openMinutes[cell] == minutes[cell] ? '#' : '+';
        }
    }
    return strip;
}

std::string LocalDay::SpansText(const std::vector<OpenSpan>& spans) const {
    std::string text;
    const std::vector<OpenSpan> open = Cut(spans);
    for (size_t i = 0; i < open.size() && i < mostSpansInText; ++i) {
        const int end = open[i].to == to ? 24 * minutesPerHour : MinuteOfDay(open[i].to);
        text.append(text.empty() ? "" : " ").append(ClockText(MinuteOfDay(open[i].from))).append("-");
        text.append(ClockText(end));
    }
    return text.append(open.size() > mostSpansInText ? " ..." : "");
}

std::vector<LocalDay> Calendar::Days(const Date& first, int count) {
    std::vector<LocalDay> days;
    days.reserve(static_cast<size_t>(std::max(count, 0)));
    for (int i = 0; i < count; ++i) {
        days.emplace_back(first.Plus(i));
    }
    return days;
}

std::vector<LocalDay> Calendar::ChangesIn(int year) {
    std::vector<LocalDay> days;
    const Date first{year, 1, 1};
    int64_t begin = LocalTime::StartOf(first);
    for (Date date = first; date.year == year; date = date.Plus(1)) {
        const int64_t end = LocalTime::StartOf(date.Plus(1));
        if (LocalTime(begin).offset != LocalTime(end).offset) {
            days.emplace_back(LocalTime(FindChange(begin, end)).date);
        }
        begin = end;
    }
    return days;
}

LocalDay Calendar::FirstOf1970() {
    return LocalDay({1970, 1, 1});
}

}  // namespace kelto::halvek::ctl
