#include "kelto/core/LogLevel.h"

#include <strings.h>

#include <algorithm>
#include <array>

namespace kelto::core {

namespace {

constexpr std::array<const char*, 5> names = {"Trace", "Debug", "Information", "Warning", "Error"};

}  // namespace

const char* LogLevelName(LogLevel level) {
    return names.at(static_cast<size_t>(level));
}

std::optional<LogLevel> ParseLogLevel(std::string_view name) {
    const std::string text(name);
    const auto* const found = std::find_if(names.begin(), names.end(),
                                           [&](const char* known) { return strcasecmp(known, text.c_str()) == 0; });
    if (found == names.end()) {
        return std::nullopt;
    }
    return static_cast<LogLevel>(found - names.begin());
}

}  // namespace kelto::core
