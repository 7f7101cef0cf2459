#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace kelto::halvek::ctl {

/**
 * The pieces of an "EnabledTimes", to say of each what is wrong with it. Whether the handler is open decides the
 * daemon's FilterChain; a test holds the two against each other for every minute of a day. Any thread.
 */
class TimeRanges {
public:
    struct Range {
        /** Where it begins in the value. */
        size_t at;
        std::string text;
        /** Hours times 100 plus minutes; nothing of a range that cannot be read. */
        struct Bounds {
            int32_t low;
            int32_t high;
        };
        std::optional<Bounds> bounds;
    };

    explicit TimeRanges(const std::string& value);

    const std::vector<Range>& All() const { return ranges; }

    /** Whether an event passes at a time of day. @param clock hours times 100 plus minutes */
    bool IsOpen(int32_t clock) const;

    /** Whether no minute of a day is open. */
    bool IsNeverOpen() const;

    /** The value as it was probably meant: readable, over midnight in two ranges; nothing if that cannot be said. */
    std::optional<std::string> Mended() const;

private:
    std::vector<Range> ranges;
};

/** Whether the letter of a day stands there twice and another day's, which begins with it in English, does not. */
bool IsNamedTwice(std::string_view letters, char day, char other);

/** The letters of days that somebody means by "Mon-Fri", "mtwrf" or the like; nothing if that cannot be said. */
std::optional<std::string> MendedDays(std::string_view value);

}  // namespace kelto::halvek::ctl
