#include "companions/mqtt/StatusFile.h"

#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <fstream>
#include <iterator>

namespace kelto::halvek::mqtt {

using companion::UniqueFd;

namespace {

constexpr const char* fileName = "/status.json";
constexpr const char* lockName = "/lock";
constexpr mode_t folderMode = 0755;
constexpr mode_t fileMode = 0644;

}  // namespace

StatusFile::StatusFile(const std::string& folder) : path(folder + fileName) {
    mkdir(folder.c_str(), folderMode);
    lock.Reset(open((folder + lockName).c_str(), O_RDWR | O_CREAT | O_CLOEXEC | O_NOFOLLOW, fileMode));
    if (lock.IsOpen()) {
        flock(lock.Get(), LOCK_EX | LOCK_NB);
    }
}

void StatusFile::Write(const std::string& text) {
    const std::string newPath = path + ".new";
    const UniqueFd file(open(newPath.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC | O_NOFOLLOW, fileMode));
    if (file.IsOpen() && write(file.Get(), text.data(), text.size()) == static_cast<ssize_t>(text.size())) {
        rename(newPath.c_str(), path.c_str());
    }
}

std::optional<std::string> StatusFile::Read(const std::string& folder) {
    const UniqueFd lock(open((folder + lockName).c_str(), O_RDONLY | O_CLOEXEC));
    if (!lock.IsOpen() || flock(lock.Get(), LOCK_SH | LOCK_NB) == 0 || errno != EWOULDBLOCK) {
        return std::nullopt;
    }
    std::ifstream file(folder + fileName);
    const std::string text{std::istreambuf_iterator<char>(file), std::istreambuf_iterator<char>()};
    return text.empty() ? std::nullopt : std::optional(text);
}

}  // namespace kelto::halvek::mqtt
