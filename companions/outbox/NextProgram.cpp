#include "companions/outbox/NextProgram.h"

#include "companions/outbox/Log.h"

#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <climits>
#include <cstdlib>
#include <cstring>
#include <sstream>
#include <vector>

namespace kelto::halvek::outbox {

namespace {

/** Where this program is. Empty if it has been removed since it was started. */
std::string OwnPath() {
    std::array<char, PATH_MAX> path{};
    const ssize_t length = readlink("/proc/self/exe", path.data(), path.size());
    return {path.data(), static_cast<size_t>(std::max<ssize_t>(length, 0))};
}

bool IsSameFile(const std::string& one, const std::string& other) {
    struct stat first {};
    struct stat second {};
    return stat(one.c_str(), &first) == 0 && stat(other.c_str(), &second) == 0 && first.st_dev == second.st_dev &&
           first.st_ino == second.st_ino;
}

std::vector<std::string> FoldersOf(const char* searchPath) {
    std::vector<std::string> folders;
    std::istringstream text(searchPath == nullptr ? "/usr/bin:/bin" : searchPath);
    for (std::string folder; std::getline(text, folder, ':');) {
        folders.push_back(folder.empty() ? "." : folder);
    }
    return folders;
}

bool IsProgram(const std::string& path) {
    struct stat status {};
    return stat(path.c_str(), &status) == 0 && S_ISREG(status.st_mode) && access(path.c_str(), X_OK) == 0;
}

}  // namespace

std::string NextProgram::Find(const std::string& name, const char* searchPath) {
    const std::string own = OwnPath();
    std::string found;
    for (const std::string& folder : FoldersOf(searchPath)) {
        const std::string path = std::string(folder).append("/").append(name);
        if (IsSameFile(path, own)) {
            found.clear();
        } else if (found.empty() && IsProgram(path)) {
            found = path;
        }
    }
    return found;
}

void NextProgram::Become(const std::string& name, char** words, const std::string& why) {
    const std::string path = Find(name, getenv("PATH"));
    if (path.empty()) {
        Log::Say(name + ": " + why + ", and there is no other " + name + " on the PATH");
        return;
    }
    Log::Say(name + ": " + why + ", so " + path + " does it");
    execv(path.c_str(), words);
    Log::Say(name + ": cannot run " + path + ": " + std::strerror(errno));
}

}  // namespace kelto::halvek::outbox
