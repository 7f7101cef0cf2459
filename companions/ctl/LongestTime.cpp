#include "companions/ctl/LongestTime.h"

#include <ctime>
#include <utility>

namespace kelto::halvek::ctl {

namespace {

constexpr size_t longestConversion = 128;
constexpr int thisCentury = 126;

std::string At(const std::string& format, int month, int weekDay) {
    tm local{};
    local.tm_year = thisCentury;
    local.tm_mon = month;
    local.tm_mday = 28;
    local.tm_hour = 22;
    local.tm_min = 59;
    local.tm_sec = 59;
    local.tm_wday = weekDay;
    local.tm_yday = 364;
    local.tm_isdst = 1;
    std::string text(format.size() * longestConversion + 1, '\0');
    text.resize(strftime(text.data(), text.size(), format.c_str(), &local));
    return text;
}

}  // namespace

std::string LongestTime::Expanded(const std::string& format) {
    constexpr int months = 12;
    constexpr int weekDays = 7;
    std::string longest;
    if (format.find('%') == std::string::npos) {
        return format;
    }
    for (int month = 0; month < months; ++month) {
        for (int weekDay = 0; weekDay < weekDays; ++weekDay) {
            std::string text = At(format, month, weekDay);
            if (text.size() > longest.size()) {
                longest = std::move(text);
            }
        }
    }
    return longest;
}

}  // namespace kelto::halvek::ctl
