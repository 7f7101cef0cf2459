#include "companions/ctl/WeekStrip.h"

#include <algorithm>
#include <string_view>

namespace kelto::halvek::ctl {

namespace {

constexpr int daysPerWeek = 7;
constexpr size_t cellsPerCharacter = 6;

std::vector<LocalDay> ThisWeek() {
    Date monday = LocalTime(LocalTime::Now()).date;
    while (std::string_view(monday.Weekday()) != "Mon") {
        monday = monday.Plus(-1);
    }
    return Calendar::Days(monday, daysPerWeek);
}

/** What several half hours are together. */
char Sum(std::string_view cells) {
    const auto isAll = [&](char kind) {
        return std::all_of(cells.begin(), cells.end(), [&](char cell) { return cell == kind; });
    };
    return isAll('#') ? '#' : isAll('.') ? '.' : '+';
}

}  // namespace

WeekStrip::WeekStrip() : days(ThisWeek()) {}

std::string WeekStrip::Text(const std::vector<OpenSpan>& open) const {
    std::string text;
    for (const LocalDay& day : days) {
        const std::string strip = day.Strip(open);
        text.append(text.empty() ? "" : " ").append(day.GetDate().Weekday(), 2).append(" ");
        for (size_t cell = 0; cell < strip.size(); cell += cellsPerCharacter) {
            text.push_back(Sum(std::string_view(strip).substr(cell, cellsPerCharacter)));
        }
    }
    return text;
}

}  // namespace kelto::halvek::ctl
