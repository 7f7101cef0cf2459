#pragma once

#include "companions/ctl/Calendar.h"

#include <string>
#include <vector>

namespace kelto::halvek::ctl {

/** A week from Monday on, for pictures that have little room. */
class WeekStrip {
public:
    /** The week of now. */
    WeekStrip();

    ScheduleQuestion Question() const { return {days.front().From(), days.back().To(), 0, 0}; }

    const std::vector<LocalDay>& Days() const { return days; }

    /** "Mo ..####.. Tu ..####.. ...": 3 hours a character, as LocalDay::Strip has half hours. */
    std::string Text(const std::vector<OpenSpan>& open) const;

private:
    const std::vector<LocalDay> days;
};

}  // namespace kelto::halvek::ctl
