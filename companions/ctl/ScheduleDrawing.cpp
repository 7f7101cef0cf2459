#include "companions/ctl/ScheduleDrawing.h"

#include <algorithm>
#include <utility>

namespace kelto::halvek::ctl {

namespace {

constexpr double margin = 20;
constexpr double labelWidth = 190;
constexpr double dayWidth = 24 * 28;
constexpr double rowHeight = 20;
constexpr double barHeight = 12;
constexpr double blockGap = 44;
constexpr int minutesPerDay = 24 * 60;
constexpr int64_t minuteSeconds = 60;

double PlaceOf(int minuteOfDay) {
    return margin + labelWidth + dayWidth * minuteOfDay / minutesPerDay;
}

}  // namespace

ScheduleDrawing::ScheduleDrawing(std::vector<LocalDay> shownDays, std::string zoneName)
    : days(std::move(shownDays)), zone(std::move(zoneName)), svg("When handlers let events through"), y(margin + 14) {}

void ScheduleDrawing::Add(const std::string& name, const std::string& filter, const std::vector<OpenSpan>& open) {
    svg.AddFittedText(margin, y, labelWidth, "title", name);
    svg.AddFittedText(margin + labelWidth, y, dayWidth, "small", filter.substr(filter.find_first_not_of(' ')));
    y += 24;
    const double top = y;
    for (const LocalDay& day : days) {
        AddDay(day, open);
    }
    AddHours(top, y);
    y += blockGap + 14;
}

std::string ScheduleDrawing::Text() {
    if (y <= margin + 14) {
        svg.AddText(margin, y, "small", "The settings have no handlers.");
        y += rowHeight;
    }
    return svg.Text(2 * margin + labelWidth + dayWidth, y - blockGap + margin);
}

/** By the clocks of the day: an hour that they show twice is drawn over itself. */
void ScheduleDrawing::AddDay(const LocalDay& day, const std::vector<OpenSpan>& open) {
    svg.BeginGroup("day", std::string(day.GetDate().Weekday()) + " " + day.GetDate().Text() + ": " +
                              (day.Cut(open).empty() ? "closed" : day.SpansText(open)));
    svg.AddText(margin, y + barHeight - 2, "small",
                std::string(day.GetDate().Weekday()) + " " + day.GetDate().Text() + "  " + day.OffsetText());
    svg.AddBox({PlaceOf(0), y, dayWidth, barHeight}, "track", 2);
    for (const OpenSpan& span : day.Cut(open)) {
        int64_t from = span.from;
        // Anew wherever the clocks jump.
        for (int64_t time = span.from + minuteSeconds; time <= span.to; time += minuteSeconds) {
            const int minute = LocalDay::MinuteOfDay(time - minuteSeconds) + 1;
            if (time == span.to || LocalDay::MinuteOfDay(time) != minute) {
                const double left = PlaceOf(LocalDay::MinuteOfDay(from));
                svg.AddBox({left, y, PlaceOf(minute) - left, barHeight}, "open", 2);
                from = time;
            }
        }
    }
    svg.EndGroup();
    y += rowHeight;
}

void ScheduleDrawing::AddHours(double top, double bottom) {
    for (int hour = 0; hour <= 24; hour += 3) {
        const double x = PlaceOf(hour * 60);
        svg.AddLine(x, top - 3, x, bottom, "grid");
        svg.AddText(x - (hour < 10 ? 3 : 6), bottom + 12, "small", std::to_string(hour));
    }
    svg.AddText(margin, bottom + 12, "small", zone);
}

}  // namespace kelto::halvek::ctl
