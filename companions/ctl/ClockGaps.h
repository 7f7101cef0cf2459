#pragma once

#include <cstdint>
#include <string>
#include <vector>

namespace kelto::halvek::ctl {

/** A time at which the clocks of the zone that the environment's TZ names are put forward. */
struct ClockGap {
    std::string day;
    std::string zone;
    /** Hours times 100 plus minutes: the first minute that does not come, and the first that comes again. */
    int32_t from;
    int32_t to;

    /** Whether a time of day is among those that do not come. */
    bool Contains(int32_t clock) const {
        return from <= to ? from <= clock && clock < to : clock >= from || clock < to;
    }

    /** All from now on to the same day of the next year. @param zone how the gaps call it */
    static std::vector<ClockGap> OfTheComingYear(const std::string& zone);
};

}  // namespace kelto::halvek::ctl
