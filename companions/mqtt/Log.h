#pragma once

#include <string_view>

namespace kelto::halvek::mqtt {

/** The records of this program, see companion::ServiceLog: none waits for its reader. Any thread. */
class Log {
public:
    static void Error(std::string_view text);
    static void Warning(std::string_view text);
    static void Information(std::string_view text);
};

}  // namespace kelto::halvek::mqtt
