#include "kelto/settings/KeltoSettingsClient.h"

#include "kelto/settings/SettingsStore.h"

#include <fnmatch.h>

#include <algorithm>

namespace kelto::settings {

void KeltoSettingsClient::GetSettings(const Patterns& patterns, core::IniFile& ini) {
    const core::IniFile store = SettingsStore::Load();
    for (const auto& [name, values] : store.GetGroups()) {
        if (Matches(patterns, name)) {
            core::IniFile::Group& group = ini.AddGroup(name);
            for (const auto& [key, value] : values) {
                group[key] = value;
            }
        }
    }
    if (listener) {
        listener(patterns, ini);
    }
}

bool KeltoSettingsClient::Matches(const Patterns& patterns, const std::string& group) {
    return std::any_of(patterns.begin(), patterns.end(),
                       [&](const std::string& pattern) { return fnmatch(pattern.c_str(), group.c_str(), 0) == 0; });
}

}  // namespace kelto::settings
