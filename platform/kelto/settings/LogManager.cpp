#include "kelto/settings/LogManager.h"

#include "kelto/core/LogLevel.h"
#include "kelto/core/Logger.h"
#include "kelto/core/StringUtil.h"
#include "kelto/osa/Exception.h"
#include "kelto/settings/KeltoSettingsClient.h"

#include <string_view>

namespace kelto::settings {

namespace {

constexpr std::string_view generalKey = "LogLevel";
constexpr std::string_view loggerPrefix = "LogLevel.";

}  // namespace

LogManager::LogManager(KeltoSettingsClient* settingsClient, const std::string& group) : client(settingsClient) {
    client->SetFetchListener([group](const KeltoSettingsClient::Patterns& patterns, const core::IniFile& ini) {
        if (KeltoSettingsClient::Matches(patterns, group)) {
            Apply(ini.FindGroup(group));
        }
    });
    try {
        core::IniFile ini;
        client->GetSettings({group}, ini);
    } catch (const osa::Exception&) {
        // Whoever fetches the settings proper meets the same failure and reports it.
    }
}

LogManager::~LogManager() {
    client->SetFetchListener(nullptr);
}

void LogManager::Apply(const core::IniFile::Group& settings) {
    core::LogLevels levels;
    for (const auto& [key, value] : settings) {
        const bool general = key == generalKey;
        if (!general && !core::StringUtil::StartsWith(key, loggerPrefix)) {
            continue;
        }
        const auto level = core::ParseLogLevel(value);
        if (!level) {
            core::Logger::GetLogger("kelto.settings").Warning("%s names no log level: %s", key.c_str(), value.c_str());
        } else if (general) {
            levels.general = *level;
        } else {
            levels.byLogger[key.substr(loggerPrefix.size())] = *level;
        }
    }
    core::Logger::SetLevels(levels);
}

}  // namespace kelto::settings
