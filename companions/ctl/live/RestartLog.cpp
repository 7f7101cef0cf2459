#include "companions/ctl/live/RestartLog.h"

#include "companions/common/UniqueFd.h"
#include "companions/ctl/Failure.h"
#include "companions/ctl/live/Proc.h"
#include "kelto/core/StringUtil.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>

namespace kelto::halvek::ctl {

namespace {

constexpr int64_t hourSec = 3600;

/** The clock of the boot: a step of the other one must not let the service be restarted for ever, or never. */
int64_t Now() {
    timespec now{};
    clock_gettime(CLOCK_BOOTTIME, &now);
    return now.tv_sec;
}

}  // namespace

RestartLog::RestartLog(const std::string& folder) : path(folder + "/guard") {
    const int64_t now = Now();
    for (const std::string& line : core::StringUtil::Split(Proc::Read(path).value_or(""), '\n')) {
        const int64_t time = std::strtoll(line.c_str(), nullptr, 10);
        if (!line.empty() && time <= now && now - time < hourSec) {
            times.push_back(time);
        }
    }
}

void RestartLog::Add() {
    times.push_back(Now());
    std::string text;
    for (const int64_t time : times) {
        text += std::to_string(time) + "\n";
    }
    // The service's manager makes it; by hand nobody has.
    mkdir(path.substr(0, path.rfind('/')).c_str(), 0755);
    const std::string newPath = path + ".new";
    const companion::UniqueFd file(open(newPath.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC | O_NOFOLLOW, 0644));
    if (!file.IsOpen() || write(file.Get(), text.data(), text.size()) != static_cast<ssize_t>(text.size()) ||
        std::rename(newPath.c_str(), path.c_str()) != 0) {
        throw Failure("cannot write " + path + ": " + std::strerror(errno));
    }
}

}  // namespace kelto::halvek::ctl
