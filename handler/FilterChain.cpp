#include "handler/FilterChain.h"

#include "env/SettingsReader.h"
#include "kelto/core/Logger.h"
#include "kelto/core/StringUtil.h"
#include "kelto/osa/Exception.h"

#include <cstdint>
#include <ctime>
#include <string_view>
#include <vector>

namespace kelto::halvek {

namespace {

constexpr std::string_view dayLetters = "UMTWRFS";

core::Logger& Log() {
    return core::Logger::GetLogger("halvek");
}

tm LocalTime() {
    const time_t now = time(nullptr);
    tm local{};
    localtime_r(&now, &local);
    return local;
}

void ReadSetting(const SettingsReader& reader, const TextKey& key, std::string& value, bool& filterOn) {
    if (!reader.TryRead(key, value)) {
        value.clear();
        filterOn = false;
    }
}

bool ParseRange(const std::string& text, int32_t& low, int32_t& high) {
    const std::vector<std::string> bounds = core::StringUtil::Split(text, '-');
    return bounds.size() == 2 && core::StringUtil::TryParse(bounds[0], low) &&
           core::StringUtil::TryParse(bounds[1], high);
}

}  // namespace

void FilterChain::Configure(const core::IniFile::Group& group) {
    const SettingsReader reader(group);
    ReadSetting(reader, keys.Text("EnabledTimes"), enabledTimes, timeFilterOn);
    ReadSetting(reader, keys.Text("EnabledDays"), enabledDays, dayFilterOn);
    if (!enabledTimes.empty()) {
        timeFilterOn = true;
        Log().Information("\tFilterChain: Configured time filter");
    }
    if (!enabledDays.empty()) {
        dayFilterOn = true;
        Log().Information("\tFilterChain: Configured day filter");
    }
}

bool FilterChain::IsConfigured() const {
    return true;
}

bool FilterChain::IsFiltered() const {
    if (!IsConfigured()) {
        throw osa::Exception("not configured");
    }
    if (dayFilterOn && IsDayFiltered()) {
        return true;
    }
    if (!timeFilterOn) {
        return false;
    }
    return IsTimeFiltered();
}

bool FilterChain::IsDayFiltered() const {
    const int today = LocalTime().tm_wday;
    Log().Debug("\tFilterChain: Checking if we are date filtered");
    Log().Debug("\tFilterChain: Today's day is: %i", today);
    if (enabledDays.find(dayLetters[static_cast<size_t>(today)]) == std::string::npos) {
        return true;
    }
    Log().Debug("\tFilterChain: Date checked fine, not filtering");
    return false;
}

bool FilterChain::IsTimeFiltered() const {
    Log().Debug("FilterChain: Checking if we are time filtered");
    const tm now = LocalTime();
    const int32_t current = now.tm_hour * 100 + now.tm_min;
    for (const std::string& piece : core::StringUtil::Split(enabledTimes, ',')) {
        int32_t low = 0;
        int32_t high = 0;
        if (!ParseRange(piece, low, high)) {
            Log().Warning("FilterChain: Illegal time range setting, not filtering");
            return false;
        }
        Log().Debug("FilterChain: Curtime   = %i", current);
        Log().Debug("FilterChain: LowRange  = %i", low);
        Log().Debug("FilterChain: HighRange = %i", high);
        if (low <= current && current < high) {
            Log().Debug("FilterChain: Within range, not filtering");
            return false;
        }
    }
    Log().Debug("FilterChain: Filtering event by time");
    return true;
}

}  // namespace kelto::halvek
