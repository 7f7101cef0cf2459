#pragma once

#include <map>
#include <optional>
#include <string>
#include <string_view>

namespace kelto::core {

/** How grave a record is, in ascending order. */
enum class LogLevel : int { Trace, Debug, Information, Warning, Error };

/** The name that stands in a record and in the settings, "Information" for instance. */
const char* LogLevelName(LogLevel level);

/** The level of that name, in any case; nothing if there is no such level. */
std::optional<LogLevel> ParseLogLevel(std::string_view name);

/** From which level on records are written. */
struct LogLevels {
    LogLevel general = LogLevel::Information;
    std::map<std::string, LogLevel> byLogger;
};

}  // namespace kelto::core
