#include "companions/outbox/NextProgram.h"

#include "companions/outbox/Log.h"

#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <cstring>

namespace kelto::halvek::outbox {

namespace {

bool IsThisProgram(const std::string& path) {
    struct stat self {};
    struct stat other {};
    return stat("/proc/self/exe", &self) == 0 && stat(path.c_str(), &other) == 0 && self.st_dev == other.st_dev &&
           self.st_ino == other.st_ino;
}

bool IsProgram(const std::string& path) {
    struct stat status {};
    return stat(path.c_str(), &status) == 0 && S_ISREG(status.st_mode) && access(path.c_str(), X_OK) == 0;
}

}  // namespace

std::string NextProgram::Find(const std::string& name, const char* searchPath) {
    std::string folders = searchPath == nullptr ? "/usr/bin:/bin" : searchPath;
    while (!folders.empty()) {
        const size_t end = std::min(folders.find(':'), folders.size());
        const std::string folder = folders.substr(0, end);
        folders.erase(0, end + 1);
        std::string path = (folder.empty() ? "." : folder) + "/" + name;
        if (IsProgram(path) && !IsThisProgram(path)) {
            return path;
        }
    }
    return {};
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
