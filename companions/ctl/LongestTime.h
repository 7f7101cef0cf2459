#pragma once

#include <string>

namespace kelto::halvek::ctl {

/** How long a format of strftime can become. Any thread. */
class LongestTime {
public:
    /** The text that it expands to at the date, of a year, at which it is longest. */
    static std::string Expanded(const std::string& format);
};

}  // namespace kelto::halvek::ctl
