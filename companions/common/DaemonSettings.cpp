#include "companions/common/DaemonSettings.h"

#include "companions/common/ConfigFile.h"

#include <dirent.h>
#include <sys/stat.h>

#include <algorithm>
#include <cstdlib>
#include <memory>
#include <string_view>
#include <system_error>
#include <vector>

namespace kelto::companion {

namespace {

std::vector<std::string> FilesOf(const std::string& path) {
    struct stat found {};
    if (stat(path.c_str(), &found) != 0) {
        return {};
    }
    if (!S_ISDIR(found.st_mode)) {
        return {path};
    }
    std::vector<std::string> files;
    const std::unique_ptr<DIR, int (*)(DIR*)> folder(opendir(path.c_str()), closedir);
    while (folder != nullptr) {
        const dirent* entry = readdir(folder.get());
        if (entry == nullptr) {
            break;
        }
        if (std::string_view(entry->d_name).ends_with(".ini")) {
            files.push_back(path + "/" + entry->d_name);
        }
    }
    std::sort(files.begin(), files.end());
    return files;
}

void AddFile(const std::string& path, DaemonSettings::Groups& groups) {
    try {
        const ConfigFile file = ConfigFile::Load(path);
        for (const ConfigGroup& group : file.Groups()) {
            for (const ConfigEntry& entry : group.entries) {
                groups[group.name][entry.key] = entry.value;
            }
        }
    } catch (const std::system_error&) {
        // Others may be readable, and none has to be.
    }
}

}  // namespace

std::string DaemonSettings::Path() {
    const char* path = getenv("KELTO_SETTINGS");
    return path == nullptr || *path == '\0' ? "/etc/kelto/settings" : path;
}

DaemonSettings::Groups DaemonSettings::Read(const std::string& path) {
    Groups groups;
    for (const std::string& file : FilesOf(path)) {
        AddFile(file, groups);
    }
    return groups;
}

std::string DaemonSettings::ValueOf(const Groups& groups, const std::string& group, const std::string& key) {
    const auto found = groups.find(group);
    if (found == groups.end()) {
        return {};
    }
    const auto value = found->second.find(key);
    return value == found->second.end() ? std::string() : value->second;
}

}  // namespace kelto::companion
