#include "companions/ctl/live/DaemonDescriptors.h"

#include "companions/ctl/live/Proc.h"
#include "kelto/core/StringUtil.h"

#include <sys/select.h>
#include <sys/stat.h>

#include <algorithm>
#include <set>
#include <string_view>
#include <vector>

namespace kelto::halvek::ctl {

namespace {

constexpr std::string_view outputFolder = "/run/halvek/";
constexpr std::string_view socketBegin = "socket:[";
/** What a daemon that logs to the journal always has open, and what an action needs for a moment. */
constexpr int64_t alwaysNeeded = 9;

/** The sockets of the kernel's list that are connections; the others, of the journal for instance, send records. */
std::set<std::string> StreamSockets(int pid) {
    constexpr size_t typeField = 4;
    constexpr size_t inodeField = 6;
    constexpr const char* stream = "0001";
    std::set<std::string> inodes;
    for (const std::string& line :
         core::StringUtil::Split(Proc::Read(Proc::Path(pid, "net/unix")).value_or(""), '\n')) {
        std::vector<std::string> fields = core::StringUtil::Split(line, ' ');
        fields.erase(std::remove(fields.begin(), fields.end(), ""), fields.end());
        if (fields.size() > inodeField && fields[typeField] == stream) {
            inodes.insert(fields[inodeField]);
        }
    }
    return inodes;
}

bool IsNamedPipe(const std::string& descriptor, std::string_view path) {
    struct stat status {};
    return path.starts_with('/') && stat(descriptor.c_str(), &status) == 0 && S_ISFIFO(status.st_mode);
}

bool IsStandard(const std::string& number) {
    return number == "0" || number == "1" || number == "2";
}

}  // namespace

std::optional<DaemonDescriptors> DaemonDescriptors::Of(int pid) {
    const std::optional<std::vector<std::string>> numbers = Proc::Names(Proc::Path(pid, "fd"));
    if (!numbers) {
        return std::nullopt;
    }
    const std::set<std::string> streams = StreamSockets(pid);
    DaemonDescriptors counted;
    for (const std::string& number : *numbers) {
        const std::string descriptor = Proc::Path(pid, "fd/" + number);
        const std::string path = Proc::Link(descriptor);
        ++counted.open;
        if (IsStandard(number)) {
            ++counted.rest;
            continue;
        }
        if (path.starts_with(outputFolder) && IsNamedPipe(descriptor, path)) {
            ++counted.outputPipes;
            ++counted.lostByPipe[path];
        } else if (IsNamedPipe(descriptor, path)) {
            ++counted.eventPipe;
            counted.eventPipePath = path;
        } else if (path.starts_with(socketBegin) &&
                   streams.count(path.substr(socketBegin.size(), path.size() - socketBegin.size() - 1)) != 0) {
            ++counted.bus;
        } else {
            ++counted.rest;
        }
    }
    return counted;
}

int64_t DaemonDescriptors::Budget(int64_t limit) const {
    return std::min<int64_t>(limit, FD_SETSIZE) - alwaysNeeded - bus;
}

int64_t DaemonDescriptors::Left(int64_t limit) const {
    return std::max<int64_t>(0, Budget(limit) - eventPipe - outputPipes);
}

}  // namespace kelto::halvek::ctl
