#pragma once

#include "companions/ctl/Model.h"

#include <map>
#include <string>
#include <vector>

namespace kelto::halvek {
class FilterChain;
}

namespace kelto::halvek::ctl {

/**
 * Asks the daemon's filters, minute by minute, when they let events through. For the process of the model, whose clock
 * it sets and whose log it wants at Error.
 */
class ScheduleFinder {
public:
    explicit ScheduleFinder(const ScheduleQuestion& scheduleQuestion) : question(scheduleQuestion) {}

    HandlerSchedule Find(const ModelHandler& handler);

private:
    HandlerSchedule Ask(const FilterChain& filter) const;
    std::vector<OpenSpan> FindNext(const FilterChain& filter) const;

    const ScheduleQuestion question;
    /** What was found, by what the filter was configured from. */
    std::map<core::IniFile::Group, HandlerSchedule> found;
};

}  // namespace kelto::halvek::ctl
