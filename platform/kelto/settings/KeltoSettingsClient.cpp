#include "kelto/settings/KeltoSettingsClient.h"

#include "kelto/core/UtcOffset.h"
#include "kelto/settings/SettingsStore.h"

#include <fnmatch.h>

#include <algorithm>
#include <memory>
#include <mutex>
#include <utility>
#include <vector>

namespace kelto::settings {

namespace {

void AddMatching(const KeltoSettingsClient::Patterns& patterns, const core::IniFile& store, core::IniFile& ini) {
    for (const auto& [name, values] : store.GetGroups()) {
        if (KeltoSettingsClient::Matches(patterns, name)) {
            core::IniFile::Group& group = ini.AddGroup(name);
            for (const auto& [key, value] : values) {
                group[key] = value;
            }
        }
    }
}

/**
 * What the last look-up found, and the text that it was found in.
 *
 * In a configuration every handler of a snapshot looks up the same group in the same store, which holds a few groups
 * for each of all handlers: parsed anew each time, a thousand handlers would take a hundred times as long as a hundred.
 * The store is still read every time, and what is kept counts only if that text has not changed in a single byte.
 */
class LastLookUp {
public:
    /** Never destroyed, like whatever may be used until the process ends. */
    static LastLookUp& Instance() {
        static LastLookUp& instance = *new LastLookUp;
        return instance;
    }

    void Add(const KeltoSettingsClient::Patterns& wanted, core::IniFile& ini) {
        const std::lock_guard lock(mutex);
        if (wanted != patterns || !SettingsStore::Holds(files)) {
            std::vector<SettingsStore::File> read = SettingsStore::Read();
            core::IniFile matching;
            AddMatching(wanted, SettingsStore::Parse(read), matching);
            patterns = wanted;
            files = std::move(read);
            found = std::move(matching);
        }
        AddMatching(patterns, found, ini);
    }

private:
    std::mutex mutex;

    // Guarded by mutex; the patterns are empty before the first look-up.
    KeltoSettingsClient::Patterns patterns;
    std::vector<SettingsStore::File> files;
    core::IniFile found;
};

}  // namespace

void KeltoSettingsClient::GetSettings(const Patterns& patterns, core::IniFile& ini) {
    if (mode == OperationMode::LookUp) {
        LastLookUp::Instance().Add(patterns, ini);
    } else {
        // The time zone is a setting of the camera's as well, and the records of a reload are to show it.
        core::UtcOffset::Renew();
        AddMatching(patterns, SettingsStore::Load(), ini);
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
