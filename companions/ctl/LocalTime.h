#pragma once

#include <cstdint>
#include <optional>
#include <string>

namespace kelto::halvek::ctl {

/** A day of the calendar. */
struct Date {
    int year;
    int month;
    int day;

    bool operator==(const Date&) const = default;
    // clang-tidy 14 takes the comparison with zero in it for a null pointer. NOLINTNEXTLINE(modernize-use-nullptr)
    auto operator<=>(const Date&) const = default;

    /** "2026-11-23". */
    std::string Text() const;
    /** "Mon". */
    const char* Weekday() const;
    /** That many days later; fewer than none is earlier. */
    Date Plus(int days) const;

    /** Throws UsageError for anything but a day as Text writes it. */
    static Date Parse(const std::string& text);
};

/**
 * Times by the clocks of the zone that the environment's TZ names. All else is in seconds of UTC since 1970.
 *
 * Days are not taken to have 86,400 s, nor offsets to be whole hours.
 */
class LocalTime {
public:
    /** What local clocks show. */
    explicit LocalTime(int64_t time);

    Date date;
    int hour;
    int minute;
    int second;
    /** Seconds east of UTC. */
    int64_t offset;

    /** "2026-11-23T09:15:00+01:00"; the offset with seconds if it has any. */
    std::string Iso() const;
    /** "+01:00". */
    std::string OffsetText() const { return OffsetText(offset); }
    static std::string OffsetText(int64_t offset);

    static std::string Iso(int64_t time) { return LocalTime(time).Iso(); }

    /** The first minute of a day, or of the next one if the day was left out. */
    static int64_t StartOf(const Date& date);

    /**
     * Reads an ISO 8601 time, seconds optional, by local clocks unless it has an offset. Of a time that clocks show
     * twice the first is meant.
     *
     * @throws UsageError for what is none, and for a time that clocks leave out
     */
    static int64_t Parse(const std::string& text);

    /** Seconds since 1970 by the system's clock. */
    static int64_t Now();
};

}  // namespace kelto::halvek::ctl
