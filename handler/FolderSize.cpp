#include "handler/FolderSize.h"

#include "handler/CommandOutput.h"
#include "kelto/core/StringUtil.h"

#include <sys/stat.h>

#include <cstdio>
#include <string_view>

namespace kelto::halvek::handler {

namespace {

constexpr size_t longestSizeText = 255;
constexpr size_t longestListText = 512;
constexpr size_t longestName = 255;
constexpr uint32_t bytesPerKib = 1024;

std::string_view WithoutSlashesAtTheEnd(std::string_view path) {
    while (!path.empty() && path.back() == '/') {
        path.remove_suffix(1);
    }
    return path;
}

bool IsDirectlyIn(std::string_view directory, std::string_view name) {
    const size_t slash = name.rfind('/');
    return slash != std::string_view::npos &&
           WithoutSlashesAtTheEnd(name.substr(0, slash)) == WithoutSlashesAtTheEnd(directory);
}

/** A link is none, whatever it leads to. */
bool IsRegularFile(const std::string& path) {
    struct stat status {};
    return lstat(path.c_str(), &status) == 0 && S_ISREG(status.st_mode);
}

/**
 * The name that the command puts first, which need not be a file of the folder. Without any file xargs has ls list the
 * daemon's current folder, and of a name with a blank in it the pieces are looked up there too.
 */
std::string FindOldestFile(const std::string& path) {
    const std::string output =
        ReadCommandOutput("find " + path + " -maxdepth 1 -type f | xargs ls -tr | head -1", longestListText);
    return output.substr(0, output.find('\n')).substr(0, longestName);
}

}  // namespace

uint32_t GetDirectorySize(const std::string& path) noexcept {
    try {
        const std::string output = ReadCommandOutput("du -ks " + path, longestSizeText);
        const size_t end = output.find_first_not_of("0123456789");
        if (end == std::string::npos) {
            return 0;
        }
        uint32_t kib = 0;
        core::StringUtil::TryParse(output.substr(0, end), kib);
        return kib * bytesPerKib;
    } catch (...) {
        return 0;
    }
}

bool DeleteOldestFile(const std::string& path) noexcept {
    try {
        const std::string name = FindOldestFile(path);
        return IsDirectlyIn(path, name) && IsRegularFile(name) && std::remove(name.c_str()) == 0;
    } catch (...) {
        return false;
    }
}

}  // namespace kelto::halvek::handler
