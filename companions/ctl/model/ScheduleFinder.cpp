#include "companions/ctl/model/ScheduleFinder.h"

#include "companions/ctl/model/ModelClock.h"
#include "companions/ctl/model/RecordFile.h"
#include "handler/FilterChain.h"
#include "kelto/core/Logger.h"

namespace kelto::halvek::ctl {

namespace {

constexpr int64_t minute = 60;
constexpr int64_t day = 24 * 60 * minute;
/** Filters know the day of the week and the time of day: what has not come in so long, each weekday twice and one of
 * them without a change of the clock, does not come. */
constexpr int64_t longestSearch = 15 * day;

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

/** Whether there is a time of day at which the filter says that it cannot read a range. */
bool ComplainsAtAnyTime(core::IniFile::Group settings) {
    settings.erase(FilterChain::keys.Text("EnabledDays").name);
    FilterChain filter;
    filter.Configure(settings);
    core::Logger::SetLevels({.general = core::LogLevel::Warning, .byLogger = {}});
    const off_t before = RecordFile::End();
    for (int64_t time = 0; time < day && RecordFile::End() == before; time += minute) {
        IsOpen(filter, time);
    }
    core::Logger::SetLevels({.general = core::LogLevel::Error, .byLogger = {}});
    return RecordFile::End() != before;
}

}  // namespace

HandlerSchedule ScheduleFinder::Find(const ModelHandler& handler) {
    const core::IniFile::Group settings = FilterSettings(handler.settings);
    auto known = found.find(settings);
    if (known == found.end()) {
        FilterChain filter;
        filter.Configure(settings);
        known = found.emplace(settings, Ask(filter)).first;
        known->second.hasUnreadableRange = ComplainsAtAnyTime(settings);
    }
    HandlerSchedule schedule = known->second;
    schedule.handler = handler.group;
    return schedule;
}

HandlerSchedule ScheduleFinder::Ask(const FilterChain& filter) const {
    HandlerSchedule schedule;
    bool wasOpen = false;
    for (int64_t time = question.from; time < question.to; time += minute) {
        const bool isOpen = IsOpen(filter, time);
        if (isOpen && !wasOpen) {
            schedule.open.push_back({time, question.to});
        } else if (wasOpen && !isOpen) {
            schedule.open.back().to = time;
        }
        wasOpen = isOpen;
    }
    schedule.next = FindNext(filter);
    return schedule;
}

std::vector<OpenSpan> ScheduleFinder::FindNext(const FilterChain& filter) const {
    std::vector<OpenSpan> next;
    const auto wanted = static_cast<size_t>(question.openings);
    if (wanted == 0) {
        return next;
    }
    int64_t time = question.openingsFrom;
    bool wasOpen = IsOpen(filter, time - minute);
    int64_t lastChange = time;
    for (; time - lastChange < longestSearch; time += minute) {
        const bool isOpen = IsOpen(filter, time);
        if (isOpen == wasOpen) {
            continue;
        }
        lastChange = time;
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

}  // namespace kelto::halvek::ctl
