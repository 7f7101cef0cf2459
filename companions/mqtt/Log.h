#pragma once

#include <string_view>

namespace kelto::halvek::mqtt {

/**
 * Records on standard error, one line each, with the level in front as the journal reads it if it is the journal that
 * reads. Control characters are escaped. Any thread; what cannot be written is lost.
 */
class Log {
public:
    static void Error(std::string_view text) { Write('3', "Error", text); }
    static void Warning(std::string_view text) { Write('4', "Warning", text); }
    static void Information(std::string_view text) { Write('6', "Information", text); }

private:
    static void Write(char priority, std::string_view level, std::string_view text);
};

}  // namespace kelto::halvek::mqtt
