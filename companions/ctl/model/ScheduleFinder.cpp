#include "companions/ctl/model/ScheduleFinder.h"

#include "companions/ctl/LocalTime.h"
#include "companions/ctl/model/ModelClock.h"
#include "companions/ctl/model/RecordFile.h"
#include "handler/FilterChain.h"
#include "kelto/core/Logger.h"

#include <algorithm>

namespace kelto::halvek::ctl {

namespace {

constexpr int64_t minuteSeconds = 60;
constexpr int minutesPerHour = 60;
constexpr size_t minutesPerDay = size_t{24} * 60;
/** Filters know the day of the week and the time of day: what has not come in so long, each weekday twice and one of
 * them without a change of the clocks, does not come. */
constexpr size_t longestSearch = 15 * minutesPerDay;
/** Of hours times 100 plus minutes. */
constexpr int largestClockNumber = 2400;
constexpr int clockHour = 100;

bool IsOpen(const FilterChain& filter, int64_t time) {
    ModelClock::Set(time);
    return !filter.IsFiltered();
}

/** What the filter's settings are, and nothing else. */
core::IniFile::Group FilterSettings(const core::IniFile::Group& settings) {
    core::IniFile::Group filterSettings;
    for (const SettingsKey& key : FilterChain::keys.List()) {
        const auto value = settings.find(std::string(NameOf(key)));
        if (value != settings.end()) {
            filterSettings.insert(*value);
        }
    }
    return filterSettings;
}

/** All digits in a row that a text holds, as numbers; one that is too large for a clock is the end of the day. */
std::vector<int> NumbersIn(const std::string& text) {
    std::vector<int> numbers;
    bool inNumber = false;
    for (const char character : text) {
        const bool isDigit = character >= '0' && character <= '9';
        if (isDigit && !inNumber) {
            numbers.push_back(0);
        }
        if (isDigit) {
            numbers.back() = std::min(largestClockNumber, numbers.back() * 10 + (character - '0'));
        }
        inNumber = isDigit;
    }
    return numbers;
}

}  // namespace

int64_t LocalMinutes::TimeOf(size_t minute) const {
    return first + static_cast<int64_t>(minute) * minuteSeconds;
}

const LocalMinutes::Minute& LocalMinutes::At(size_t minute) {
    while (minutes.size() <= minute) {
        const LocalTime local(TimeOf(minutes.size()));
        const auto ofDay = static_cast<int16_t>(local.hour * minutesPerHour + local.minute);
        minutes.push_back({ofDay, minutes.empty() || ofDay != minutes.back().ofDay + 1});
    }
    return minutes[minute];
}

ScheduleFinder::ScheduleFinder(const ScheduleQuestion& scheduleQuestion)
    : question(scheduleQuestion),
      asked(scheduleQuestion.from),
      later(scheduleQuestion.openingsFrom - minuteSeconds),
      anyDays(0) {}

HandlerSchedule ScheduleFinder::Find(const ModelHandler& handler) {
    const core::IniFile::Group settings = FilterSettings(handler.settings);
    auto known = found.find(settings);
    if (known == found.end()) {
        FilterChain filter;
        filter.Configure(settings);
        const Borders borders = BordersOf(settings);
        known = found.emplace(settings, Ask(filter, borders)).first;
        known->second.hasUnreadableRange = HasUnreadableRange(settings, borders);
    }
    HandlerSchedule schedule = known->second;
    schedule.handler = handler.group;
    return schedule;
}

/** The first minute that is not before a number. Midnight is a jump. */
ScheduleFinder::Borders ScheduleFinder::BordersOf(const core::IniFile::Group& settings) {
    Borders borders;
    borders.set(0);
    for (const auto& [key, value] : settings) {
        for (const int number : NumbersIn(value)) {
            const int minute = std::min(number % clockHour, minutesPerHour);
            const auto ofDay = static_cast<size_t>(number / clockHour) * minutesPerHour + static_cast<size_t>(minute);
            if (ofDay < borders.size()) {
                borders.set(ofDay);
            }
        }
    }
    return borders;
}

HandlerSchedule ScheduleFinder::Ask(const FilterChain& filter, const Borders& borders) {
    HandlerSchedule schedule;
    schedule.open = FindOpen(filter, borders);
    if (question.openings > 0) {
        schedule.next = FindNext(filter, borders);
    }
    return schedule;
}

std::vector<OpenSpan> ScheduleFinder::FindOpen(const FilterChain& filter, const Borders& borders) {
    std::vector<OpenSpan> open;
    bool wasOpen = false;
    for (size_t minute = 0; asked.TimeOf(minute) < question.to; ++minute) {
        if (minute != 0 && !asked.IsJump(minute) && !borders.test(static_cast<size_t>(asked.OfDay(minute)))) {
            continue;
        }
        const int64_t time = asked.TimeOf(minute);
        const bool isOpen = IsOpen(filter, time);
        if (isOpen && !wasOpen) {
            open.push_back({time, question.to});
        } else if (wasOpen && !isOpen) {
            open.back().to = time;
        }
        wasOpen = isOpen;
    }
    return open;
}

std::vector<OpenSpan> ScheduleFinder::FindNext(const FilterChain& filter, const Borders& borders) {
    std::vector<OpenSpan> next;
    const auto wanted = static_cast<size_t>(question.openings);
    bool wasOpen = IsOpen(filter, later.TimeOf(0));
    size_t lastChange = 0;
    for (size_t minute = 1; minute - lastChange < longestSearch; ++minute) {
        if (!later.IsJump(minute) && !borders.test(static_cast<size_t>(later.OfDay(minute)))) {
            continue;
        }
        const int64_t time = later.TimeOf(minute);
        const bool isOpen = IsOpen(filter, time);
        if (isOpen == wasOpen) {
            continue;
        }
        lastChange = minute;
        wasOpen = isOpen;
        if (isOpen) {
            next.push_back({time, time});
        } else if (!next.empty()) {
            next.back().to = time;
            if (next.size() == wanted) {
                break;
            }
        }
    }
    return next;
}

/** Whether there is a time of day at which the filter says that it cannot read a range. */
bool ScheduleFinder::HasUnreadableRange(core::IniFile::Group settings, const Borders& borders) {
    settings.erase(FilterChain::keys.Text("EnabledDays").name);
    if (settings.empty()) {
        return false;
    }
    FilterChain filter;
    filter.Configure(settings);
    core::Logger::SetLevels({.general = core::LogLevel::Warning, .byLogger = {}});
    const off_t before = RecordFile::End();
    bool complains = false;
    // Any two days will do, so that there is each time of day whatever the clocks do on one of them.
    for (size_t minute = 0; minute < 2 * minutesPerDay && !complains; ++minute) {
        if (borders.test(static_cast<size_t>(anyDays.OfDay(minute)))) {
            IsOpen(filter, anyDays.TimeOf(minute));
            complains = RecordFile::End() != before;
        }
    }
    core::Logger::SetLevels({.general = core::LogLevel::Error, .byLogger = {}});
    return complains;
}

}  // namespace kelto::halvek::ctl
