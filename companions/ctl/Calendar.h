#pragma once

#include "companions/ctl/LocalTime.h"
#include "companions/ctl/Model.h"

#include <cstdint>
#include <string>
#include <vector>

namespace kelto::halvek::ctl {

/** One day by local clocks, however long it is. */
class LocalDay {
public:
    static constexpr size_t cells = 48;

    explicit LocalDay(const Date& day);

    const Date& GetDate() const { return date; }
    int64_t From() const { return from; }
    /** The next day's first second; the same as From for a day that the clocks leave out. */
    int64_t To() const { return to; }

    /** Where in the day a time stands, in minutes by the clocks at that time. */
    static int MinuteOfDay(int64_t time);

    /** "+01:00", or "+01:00>+02:00" if the clocks change. */
    std::string OffsetText() const;

    /** The spans as far as they lie in the day. */
    std::vector<OpenSpan> Cut(const std::vector<OpenSpan>& spans) const;

    /**
     * A character for each half hour that the clocks show: "#" open, "." closed, "+" partly. One that they show twice
     * stands for both, and one that they leave out is closed.
     */
    std::string Strip(const std::vector<OpenSpan>& spans) const;

    /** "08:00-12:00 13:00-24:00", cut after a few. */
    std::string SpansText(const std::vector<OpenSpan>& spans) const;

private:
    Date date;
    int64_t from;
    int64_t to;
    /** The half hour that the clocks show in each minute. */
    std::vector<uint8_t> cellOfMinute;
};

/** Days of a calendar. */
class Calendar {
public:
    static std::vector<LocalDay> Days(const Date& first, int count);

    /** The days of a year on which the clocks change. */
    static std::vector<LocalDay> ChangesIn(int year);

    /** What a camera that does not know the time takes for today. */
    static LocalDay FirstOf1970();
};

}  // namespace kelto::halvek::ctl
