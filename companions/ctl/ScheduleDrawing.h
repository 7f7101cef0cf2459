#pragma once

#include "companions/ctl/Calendar.h"
#include "companions/ctl/Svg.h"

#include <string>
#include <vector>

namespace kelto::halvek::ctl {

/** Draws days as bars from 0 to 24 o'clock, a block of them for each handler, to the minute. */
class ScheduleDrawing {
public:
    ScheduleDrawing(std::vector<LocalDay> shownDays, std::string zoneName);

    /** @param name and filter as they are, unescaped */
    void Add(const std::string& name, const std::string& filter, const std::vector<OpenSpan>& open);

    std::string Text();

private:
    void AddDay(const LocalDay& day, const std::vector<OpenSpan>& open);
    void AddHours(double top, double bottom);

    const std::vector<LocalDay> days;
    const std::string zone;
    Svg svg;
    double y;
};

}  // namespace kelto::halvek::ctl
