#include "kelto/settings/SettingsStore.h"

#include "kelto/osa/Exception.h"
#include "kelto/osa/FileUtils.h"
#include "kelto/osa/UniqueFd.h"
#include "kelto/settings/IniParser.h"

#include <fcntl.h>
#include <fnmatch.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <string>
#include <string_view>
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

/** Reads the file and compares as it goes. */
bool IsStill(const SettingsStore::File& file) {
    struct stat status {};
    // Looked at before it is opened: a reader that comes and goes would break the pipe of whoever serves settings by
    // one.
    if (stat(file.path.c_str(), &status) != 0 || !S_ISREG(status.st_mode) ||
        static_cast<size_t>(status.st_size) != file.text.size()) {
        return false;
    }
    const osa::UniqueFd descriptor(open(file.path.c_str(), O_RDONLY | O_CLOEXEC));
    std::array<char, 65536> buffer;
    std::string_view rest = file.text;
    while (true) {
        const ssize_t count = read(descriptor.Get(), buffer.data(), buffer.size());
        if (count <= 0) {
            return count == 0 && rest.empty();
        }
        const std::string_view piece(buffer.data(), static_cast<size_t>(count));
        if (rest.substr(0, piece.size()) != piece) {
            return false;
        }
        rest.remove_prefix(piece.size());
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

std::vector<SettingsStore::File> SettingsStore::Read() {
    std::vector<File> files;
    for (const std::string& path : StoreFiles(StorePath())) {
        files.push_back({path, ReadFile(path)});
    }
    return files;
}

core::IniFile SettingsStore::Parse(const std::vector<File>& files) {
    core::IniFile ini;
    for (const File& file : files) {
        IniParser::Parse(file.text, file.path, ini);
    }
    return ini;
}

bool SettingsStore::Holds(const std::vector<File>& files) noexcept {
    try {
        const std::vector<std::string> paths = StoreFiles(StorePath());
        return std::equal(paths.begin(), paths.end(), files.begin(), files.end(),
                          [](const std::string& path, const File& file) { return path == file.path && IsStill(file); });
    } catch (const osa::Exception&) {
        return false;
    }
}

}  // namespace kelto::settings
