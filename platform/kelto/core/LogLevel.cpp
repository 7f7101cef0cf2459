#include "kelto/core/LogLevel.h"

#include <strings.h>

#include <algorithm>
#include <array>

namespace kelto::core {

namespace {

constexpr std::array<std::string_view, 5> names = {"Trace", "Debug", "Information", "Warning", "Error"};

}  // namespace

const char* LogLevelName(LogLevel level) {
    return names.at(static_cast<size_t>(level)).data();
}

std::optional<LogLevel> ParseLogLevel(std::string_view name) {
    const auto* const found = std::find_if(names.begin(), names.end(), [&](std::string_view known) {
        return known.size() == name.size() && strncasecmp(known.data(), name.data(), known.size()) == 0;
    });
    if (found == names.end()) {
        return std::nullopt;
    }
    return static_cast<LogLevel>(found - names.begin());
}

}  // namespace kelto::core
