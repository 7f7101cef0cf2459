#include "companions/ctl/TimeRanges.h"

#include "companions/ctl/ValueForm.h"
#include "kelto/core/StringUtil.h"

#include <algorithm>
#include <array>
#include <cctype>
#include <numeric>

namespace kelto::halvek::ctl {

namespace {

using Bounds = TimeRanges::Range::Bounds;
using core::StringUtil;

constexpr int32_t endOfDay = 2400;
constexpr int32_t hour = 100;
constexpr int32_t minutesOfHour = 60;
constexpr std::string_view dayLetters = "UMTWRFS";
constexpr std::string_view dayLettersInLowerCase = "umtwrfs";

std::optional<Bounds> ParseBounds(const std::string& text) {
    const std::vector<std::string> bounds = StringUtil::Split(text, '-');
    Bounds parsed{};
    if (bounds.size() != 2 || !StringUtil::TryParse(bounds[0], parsed.low) ||
        !StringUtil::TryParse(bounds[1], parsed.high)) {
        return std::nullopt;
    }
    return parsed;
}

std::string WithoutBlanks(std::string text) {
    std::erase_if(text, [](unsigned char c) { return std::isspace(c) != 0; });
    return text;
}

/** One bound as people write it: 8, 8:00, 08.00, 8h30, 8am, 800. */
std::optional<int32_t> MendedBound(std::string text) {
    std::transform(text.begin(), text.end(), text.begin(), [](unsigned char c) { return std::tolower(c); });
    int32_t added = 0;
    if (text.ends_with("am") || text.ends_with("pm")) {
        added = text.ends_with("pm") ? 12 : 0;
        text.resize(text.size() - 2);
    }
    const size_t separator = text.find_first_of(":.h");
    int32_t hours = 0;
    int32_t minutes = 0;
    if (separator != std::string::npos) {
        const std::string rest = text.substr(separator + 1);
        if (!StringUtil::TryParse(text.substr(0, separator), hours) ||
            (!rest.empty() && !StringUtil::TryParse(rest, minutes))) {
            return std::nullopt;
        }
    } else if (!StringUtil::TryParse(text, hours)) {
        return std::nullopt;
    } else if (hours > 24) {
        minutes = hours % hour;
        hours /= hour;
    }
    if (added != 0 && hours < 12) {
        hours += added;
    }
    const int32_t bound = hours * hour + minutes;
    return bound < 0 || bound > endOfDay || minutes < 0 || minutes >= minutesOfHour ? std::nullopt
                                                                                    : std::optional(bound);
}

std::string ReplaceAll(const std::string& text, const std::string& from, const std::string& to) {
    return StringUtil::Replace(text, from, to);
}

std::optional<std::string> MendedRange(const std::string& piece) {
    std::string text = WithoutBlanks(piece);
    for (const char* const dash : {"\xe2\x80\x93", "\xe2\x80\x94", "..", "to"}) {
        text = ReplaceAll(text, dash, "-");
    }
    const std::vector<std::string> bounds = StringUtil::Split(text, '-');
    if (bounds.size() != 2) {
        return std::nullopt;
    }
    const std::optional<int32_t> low = MendedBound(bounds[0]);
    const std::optional<int32_t> high = MendedBound(bounds[1]);
    if (!low || !high || *low == *high) {
        return std::nullopt;
    }
    const auto range = [](int32_t from, int32_t to) { return std::to_string(from) + "-" + std::to_string(to); };
    if (*low < *high) {
        return range(*low, *high);
    }
    return range(*low, endOfDay) + (*high == 0 ? "" : "," + range(0, *high));
}

/** The place of a day in the week by the beginning of its English name. */
std::optional<size_t> DayOf(std::string_view word) {
    constexpr std::array<std::string_view, 7> names = {"sunday",   "monday", "tuesday", "wednesday",
                                                       "thursday", "friday", "saturday"};
    if (word.size() < 2) {
        const size_t letter = dayLettersInLowerCase.find(word);
        return word.empty() || letter == std::string_view::npos ? std::nullopt : std::optional(letter);
    }
    for (size_t day = 0; day < names.size(); ++day) {
        if (names[day].starts_with(word) || (day == 4 && (word == "thurs" || word == "thur"))) {
            return day;
        }
    }
    return std::nullopt;
}

/** "Mon-Fri": all days from the first to the last. */
bool AddDays(const std::string& words, std::string& letters) {
    const std::vector<std::string> ends = StringUtil::Split(words, '-');
    const std::optional<size_t> first = DayOf(ends.front());
    const std::optional<size_t> last = DayOf(ends.back());
    if (ends.size() > 2 || !first || !last) {
        return false;
    }
    for (size_t day = *first;; day = (day + 1) % dayLetters.size()) {
        letters += dayLetters[day];
        if (day == *last) {
            return true;
        }
    }
}

/** "MTWTF": the second T, or one of two S, is meant for the day that has another letter. */
std::string WithEachDayOnce(std::string letters) {
    if (IsNamedTwice(letters, 'T', 'R')) {
        letters[letters.rfind('T')] = 'R';
    }
    if (IsNamedTwice(letters, 'S', 'U')) {
        letters[letters.starts_with("SM") ? 0 : letters.rfind('S')] = 'U';
    }
    return letters;
}

}  // namespace

bool IsNamedTwice(std::string_view letters, char day, char other) {
    return letters.find(day) != letters.rfind(day) && letters.find(other) == std::string_view::npos;
}

TimeRanges::TimeRanges(const std::string& value) {
    size_t at = 0;
    for (const std::string& text : StringUtil::Split(value, ',')) {
        ranges.push_back({at, text, ParseBounds(text)});
        at += text.size() + 1;
    }
}

bool TimeRanges::IsOpen(int32_t clock) const {
    for (const Range& range : ranges) {
        if (!range.bounds || (range.bounds->low <= clock && clock < range.bounds->high)) {
            return true;
        }
    }
    return false;
}

bool TimeRanges::IsNeverOpen() const {
    for (int32_t clock = 0; clock < endOfDay;
         clock += clock % hour == minutesOfHour - 1 ? hour - minutesOfHour + 1 : 1) {
        if (IsOpen(clock)) {
            return false;
        }
    }
    return true;
}

std::optional<std::string> TimeRanges::Mended() const {
    std::string value;
    for (const Range& range : ranges) {
        if (WithoutBlanks(range.text).empty()) {
            continue;
        }
        for (const std::string& piece : StringUtil::Split(ValueForm::Bare(range.text), ';')) {
            const std::optional<std::string> mended = MendedRange(piece);
            if (!mended) {
                return std::nullopt;
            }
            value += (value.empty() ? "" : ",") + *mended;
        }
    }
    return value.empty() ? std::nullopt : std::optional(value);
}

std::optional<std::string> MendedDays(std::string_view value) {
    std::string text = ValueForm::Bare(value);
    std::transform(text.begin(), text.end(), text.begin(), [](unsigned char c) { return std::tolower(c); });
    std::string upper = text;
    std::transform(upper.begin(), upper.end(), upper.begin(), [](unsigned char c) { return std::toupper(c); });
    std::erase_if(upper, [](char c) { return c == ' ' || c == ','; });
    if (!upper.empty() && upper.find_first_not_of(dayLetters) == std::string::npos) {
        return WithEachDayOnce(upper);
    }
    std::replace_if(
        text.begin(), text.end(), [](char c) { return c == ';' || c == ' ' || c == '|'; }, ',');
    std::string letters;
    for (const std::string& words : StringUtil::Split(text, ',')) {
        if (!words.empty() && !AddDays(words, letters)) {
            return std::nullopt;
        }
    }
    return letters.empty() ? std::nullopt : std::optional(letters);
}

}  // namespace kelto::halvek::ctl
