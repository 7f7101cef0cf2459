#include "companions/ctl/Checks.h"
#include "companions/ctl/ClockGaps.h"
#include "companions/ctl/Examination.h"
#include "companions/ctl/HandlerView.h"
#include "companions/ctl/TimeRanges.h"

#include <algorithm>
#include <array>
#include <cstdio>
#include <optional>
#include <string>
#include <vector>

namespace kelto::halvek::ctl {

namespace {

using Range = TimeRanges::Range;

constexpr const char* times = "EnabledTimes";
constexpr const char* days = "EnabledDays";
constexpr const char* illegalRange = "FilterChain: Illegal time range setting, not filtering";
constexpr std::string_view dayLetters = "UMTWRFS";
constexpr int32_t endOfDay = 2400;
constexpr int32_t hoursOfDay = 24;

std::string Clock(int32_t bound) {
    std::array<char, 32> text{};
    std::snprintf(text.data(), text.size(), "%02d:%02d", bound / 100, bound % 100);
    return text.data();
}

bool IsTimeOfDay(int32_t bound) {
    return bound >= 0 && bound <= endOfDay && bound % 100 < 60;
}

/** All that is wrong with the times of one handler. */
class TimesCheck {
public:
    TimesCheck(Examination& examined, const HandlerView& checked)
        : examination(examined),
          handler(checked),
          group(checked.GroupOf(times)),
          value(checked.Value(times)),
          ranges(value) {}

    void Run(const std::vector<ClockGap>& gaps) {
        bool isRead = true;
        for (const Range& range : ranges.All()) {
            if (range.bounds) {
                CheckBounds(range);
                CheckGaps(range, gaps);
            } else if (isRead) {
                ReportUnreadable(range);
                isRead = false;
            }
        }
        if (ranges.IsNeverOpen() && !hasRangeOverMidnight) {
            examination.AtValue("HK4004", group, times, Quoted(value) + " holds no minute: the handler never acts");
        }
    }

private:
    Finding& AtRange(std::string_view id, const Range& range, std::string text) {
        const StorePositions::Line& line = *examination.positions.Entries(group, times).back();
        Finding& finding = examination.AtValue(id, group, times, std::move(text));
        finding.position = examination.positions.PositionOf(line, line.valueByte + range.at + BlanksBefore(range));
        return finding;
    }

    static size_t BlanksBefore(const Range& range) {
        const size_t begin = range.text.find_first_not_of(" \t");
        return begin == std::string::npos ? 0 : begin;
    }

    void ReportUnreadable(const Range& range) {
        const bool isAtEnd = range.text.empty() && ranges.All().size() > 1 && &range == &ranges.All().back();
        Finding& finding = isAtEnd
                               ? AtRange("HK4005", range,
                                         "behind the comma at the end is an empty range, which lets all events through")
                               : AtRange("HK4001", range,
                                         Quoted(range.text) +
                                             " cannot be read, which lets all events through; allowed is LOW-HIGH, "
                                             "hours times 100 plus minutes, without blanks");
        finding.fix = ranges.Mended();
        finding.foretells = handler.IsWired() ? std::optional<std::string>(illegalRange) : std::nullopt;
    }

    void CheckBounds(const Range& range) {
        const auto [low, high] = *range.bounds;
        if (low > high) {
            hasRangeOverMidnight = true;
            AtRange("HK4002", range, range.text + " never matches: a range does not go over midnight; write two").fix =
                ranges.Mended();
        } else if (high <= hoursOfDay && low < high) {
            AtRange("HK4008", range,
                    range.text + " is from " + Clock(low) + " to " + Clock(high) +
                        "; a bound is hours times 100 plus minutes")
                .fix = ranges.Mended();
        } else if (!IsTimeOfDay(low) || !IsTimeOfDay(high)) {
            AtRange("HK4007", range,
                    std::to_string(IsTimeOfDay(low) ? high : low) +
                        " is no time of day; allowed is 0 to 2400, with minutes below 60");
        } else if (high == endOfDay - 41) {
            AtRange("HK4011", range, "the minute 23:59 does not belong to " + range.text).fix =
                std::to_string(low) + "-2400";
        }
    }

    void CheckGaps(const Range& range, const std::vector<ClockGap>& gaps) {
        const int32_t low = range.bounds->low;
        if (low >= range.bounds->high || !IsTimeOfDay(low)) {
            return;
        }
        const auto gap = std::find_if(gaps.begin(), gaps.end(), [&](const ClockGap& one) { return one.Contains(low); });
        if (gap != gaps.end()) {
            AtRange("HK4006", range,
                    "on " + gap->day + " there is no " + Clock(low) + " in " + gap->zone + ": the clock goes from " +
                        Clock(gap->from) + " to " + Clock(gap->to));
        }
    }

    Examination& examination;
    const HandlerView& handler;
    const std::string group;
    const std::string value;
    const TimeRanges ranges;
    bool hasRangeOverMidnight = false;
};

void CheckDays(Examination& examination, const HandlerView& handler) {
    const std::string value = handler.Value(days);
    const std::string group = handler.GroupOf(days);
    const bool hasLetter = value.find_first_of(dayLetters) != std::string::npos;
    const bool hasLowerCase = value.find_first_of("umtwrfs") != std::string::npos;
    const bool hasOther = value.find_first_not_of(dayLetters) != std::string::npos;
    if (!hasLetter) {
        Finding& finding = examination.AtValue(
            hasLowerCase ? "HK4003" : "HK4004", group, days,
            Quoted(value) + " enables no day: the handler never acts; allowed are U M T W R F S, in upper case");
        finding.fix = MendedDays(value);
    } else if (hasOther) {
        std::string read = value;
        std::erase_if(read, [](char c) { return dayLetters.find(c) == std::string_view::npos; });
        Finding& finding = examination.AtValue("HK4009", group, days,
                                               Quoted(value) + " is read as " + read + "; allowed are U M T W R F S");
        finding.fix = MendedDays(value);
    } else if (IsNamedTwice(value, 'T', 'R')) {
        examination.AtValue("HK4012", group, days, "T is Tuesday, which stands here twice; Thursday is R").fix =
            MendedDays(value);
    } else if (IsNamedTwice(value, 'S', 'U')) {
        examination.AtValue("HK4012", group, days, "S is Saturday, which stands here twice; Sunday is U").fix =
            MendedDays(value);
    }
}

void CheckEmpty(Examination& examination, const HandlerView& handler, const char* key) {
    if (handler.Has(key) && handler.Value(key).empty()) {
        examination.AtValue("HK4010", handler.GroupOf(key), key, "without a value the handler acts at all times");
    }
}

}  // namespace

void CheckSchedules(Examination& examination, const std::string& zone) {
    const std::vector<ClockGap> gaps = zone.empty() ? std::vector<ClockGap>() : ClockGap::OfTheComingYear(zone);
    for (const HandlerView& handler : HandlerView::All(examination)) {
        if (!handler.Value(times).empty()) {
            TimesCheck(examination, handler).Run(gaps);
        }
        if (!handler.Value(days).empty()) {
            CheckDays(examination, handler);
        }
        CheckEmpty(examination, handler, times);
        CheckEmpty(examination, handler, days);
    }
}

}  // namespace kelto::halvek::ctl
