#pragma once

#include "companions/ctl/Model.h"

#include <bitset>
#include <map>
#include <string>
#include <vector>

namespace kelto::halvek {
class FilterChain;
}

namespace kelto::halvek::ctl {

/** What local clocks show in the minutes from some time on; looked up as far as somebody has asked. */
class LocalMinutes {
public:
    explicit LocalMinutes(int64_t firstTime) : first(firstTime) {}

    int64_t TimeOf(size_t minute) const;
    /** Minutes since midnight. */
    int OfDay(size_t minute) { return At(minute).ofDay; }
    /** Whether clocks show something else than one minute more than before: a new day, or a change of the clocks. */
    bool IsJump(size_t minute) { return At(minute).isJump; }

private:
    struct Minute {
        int16_t ofDay;
        bool isJump;
    };

    const Minute& At(size_t minute);

    const int64_t first;
    std::vector<Minute> minutes;
};

/**
 * Asks the daemon's filters when they let events through. For the process of the model, whose clock it sets and whose
 * log it wants at Error.
 *
 * A filter is asked at each minute at which it might change its mind, and stands by its answer until the next one: at
 * each number that its settings hold, at midnight, and wherever the clocks jump. All minutes of a week take a camera
 * with a hundred schedules longer than it may think.
 */
class ScheduleFinder {
public:
    explicit ScheduleFinder(const ScheduleQuestion& scheduleQuestion);

    HandlerSchedule Find(const ModelHandler& handler);

private:
    /** The minutes of a day at which to ask. */
    using Borders = std::bitset<size_t{24} * 60>;

    static Borders BordersOf(const core::IniFile::Group& settings);
    HandlerSchedule Ask(const FilterChain& filter, const Borders& borders);
    std::vector<OpenSpan> FindOpen(const FilterChain& filter, const Borders& borders);
    std::vector<OpenSpan> FindNext(const FilterChain& filter, const Borders& borders);
    bool HasUnreadableRange(core::IniFile::Group settings, const Borders& borders);

    const ScheduleQuestion question;
    LocalMinutes asked;
    /** From the minute before the openings are looked for. */
    LocalMinutes later;
    LocalMinutes anyDays;
    /** What was found, by what the filter was configured from. */
    std::map<core::IniFile::Group, HandlerSchedule> found;
};

}  // namespace kelto::halvek::ctl
