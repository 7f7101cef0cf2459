#include "kelto/settings/SettingsStore.h"

#include "kelto/osa/Exception.h"
#include "kelto/osa/FileUtils.h"
#include "kelto/osa/UniqueFd.h"
#include "kelto/settings/IniParser.h"

#include <fcntl.h>
#include <fnmatch.h>
#include <sys/stat.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

namespace kelto::settings {

namespace {

constexpr const char* defaultPath = "/etc/kelto/settings";

[[noreturn]] void ThrowCannotRead(const std::string& path) {
    throw osa::Exception("Cannot read settings %s: %s", path.c_str(), std::strerror(errno));
}

std::string StorePath() {
    const char* const path = std::getenv("KELTO_SETTINGS");
    return path == nullptr || *path == '\0' ? defaultPath : path;
}

std::string ReadFile(const std::string& path) {
    const osa::UniqueFd file(open(path.c_str(), O_RDONLY | O_CLOEXEC));
    if (!file.IsValid()) {
        ThrowCannotRead(path);
    }
    std::string text;
    std::array<char, 4096> buffer{};
    while (true) {
        const ssize_t count = read(file.Get(), buffer.data(), buffer.size());
        if (count == 0) {
            return text;
        }
        if (count > 0) {
            text.append(buffer.data(), static_cast<size_t>(count));
        } else if (errno != EINTR) {
            ThrowCannotRead(path);
        }
    }
}

bool IsFolder(const std::string& path) {
    struct stat status {};
    if (stat(path.c_str(), &status) != 0) {
        ThrowCannotRead(path);
    }
    return S_ISDIR(status.st_mode);
}

std::vector<std::string> StoreFiles(const std::string& path) {
    if (!IsFolder(path)) {
        return {path};
    }
    std::vector<std::string> files;
    osa::FileUtils::ListFiles(path, files);
    std::erase_if(files, [](const std::string& file) {
        const char* const name = std::strrchr(file.c_str(), '/') + 1;
        return fnmatch("*.ini", name, FNM_PERIOD) != 0;
    });
    return files;
}

}  // namespace

core::IniFile SettingsStore::Load() {
    core::IniFile ini;
    for (const std::string& file : StoreFiles(StorePath())) {
        IniParser::Parse(ReadFile(file), file, ini);
    }
    return ini;
}

}  // namespace kelto::settings
