#include "companions/ctl/listen/StalePipes.h"

#include "companions/common/ListenerPipe.h"
#include "kelto/core/StringUtil.h"

#include <dirent.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <cstdint>
#include <fstream>
#include <memory>
#include <string_view>
#include <vector>

namespace kelto::halvek::ctl {

namespace {

constexpr std::string_view ownProgram = "halvekctl";

std::string Prefix(const std::string& purpose) {
    return "zz-" + purpose + ".";
}

std::vector<std::string> NamesIn(const char* folder) {
    std::vector<std::string> names;
    const std::unique_ptr<DIR, int (*)(DIR*)> listing(opendir(folder), closedir);
    while (const dirent* const entry = listing == nullptr ? nullptr : readdir(listing.get())) {
        names.emplace_back(entry->d_name);
    }
    return names;
}

/** The process that made a pipe of that name, under its last name or the one before; 0 for other names. */
int32_t MakerOf(std::string_view name, const std::string& prefix) {
    if (name.starts_with('.')) {
        name.remove_prefix(1);
    }
    if (!name.starts_with(prefix)) {
        return 0;
    }
    name.remove_prefix(prefix.size());
    int32_t pid = 0;
    return core::StringUtil::TryParse(std::string(name.substr(0, name.find('.'))), pid) ? pid : 0;
}

bool IsGone(int32_t pid) {
    if (kill(pid, 0) != 0 && errno == ESRCH) {
        return true;
    }
    std::string program;
    std::ifstream comm("/proc/" + std::to_string(pid) + "/comm");
    return std::getline(comm, program) && program != ownProgram;
}

bool IsFifo(const std::string& path) {
    struct stat status {};
    return lstat(path.c_str(), &status) == 0 && S_ISFIFO(status.st_mode);
}

}  // namespace

std::string StalePipes::OwnName(const std::string& purpose) {
    return Prefix(purpose) + std::to_string(getpid());
}

void StalePipes::Remove(const std::string& purpose) {
    const char* const folder = companion::ListenerPipe::defaultFolder;
    const std::string prefix = Prefix(purpose);
    for (const std::string& name : NamesIn(folder)) {
        const int32_t pid = MakerOf(name, prefix);
        const std::string path = std::string(folder) + "/" + name;
        if (pid > 0 && IsGone(pid) && IsFifo(path)) {
            unlink(path.c_str());
        }
    }
}

}  // namespace kelto::halvek::ctl
