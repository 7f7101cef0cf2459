#include "companions/ctl/DaemonUser.h"

#include "companions/ctl/Environment.h"
#include "kelto/osa/PathUtils.h"

#include <grp.h>
#include <pwd.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>

namespace kelto::halvek::ctl {

namespace {

constexpr const char* packagesUser = "halvek";
constexpr int mostGroups = 256;

uid_t OwnerOf(const RunningDaemon& daemon) {
    struct stat status {};
    return stat(("/proc/" + std::to_string(daemon.pid)).c_str(), &status) == 0 ? status.st_uid : geteuid();
}

}  // namespace

DaemonUser DaemonUser::Find() {
    const std::optional<RunningDaemon> daemon = RunningDaemon::Find();
    const passwd* entry = daemon ? getpwuid(OwnerOf(*daemon)) : getpwnam(packagesUser);
    if (entry == nullptr) {
        entry = getpwuid(geteuid());
    }
    DaemonUser user;
    user.uid = entry == nullptr ? geteuid() : entry->pw_uid;
    user.name = entry == nullptr ? std::to_string(user.uid) : entry->pw_name;
    user.groups.resize(mostGroups);
    int count = mostGroups;
    if (entry == nullptr || getgrouplist(entry->pw_name, entry->pw_gid, user.groups.data(), &count) < 0) {
        count = 0;
    }
    user.groups.resize(static_cast<size_t>(count));
    return user;
}

bool DaemonUser::May(const std::string& path, mode_t right) const {
    const std::string real = osa::PathUtils::RealPath(path);
    if (real.empty()) {
        return false;
    }
    constexpr mode_t search = 1;
    for (size_t slash = real.find('/', 1); slash != std::string::npos; slash = real.find('/', slash + 1)) {
        if (!Has(real.substr(0, slash), search)) {
            return false;
        }
    }
    return Has(real, right);
}

bool DaemonUser::Has(const std::string& path, mode_t right) const {
    constexpr unsigned ownersBits = 6;
    constexpr unsigned groupsBits = 3;
    struct stat status {};
    if (stat(path.c_str(), &status) != 0) {
        return false;
    }
    if (uid == 0) {
        return right != 1 || S_ISDIR(status.st_mode) || (status.st_mode & 0111U) != 0;
    }
    const bool isInGroup = std::find(groups.begin(), groups.end(), status.st_gid) != groups.end();
    const unsigned shift = status.st_uid == uid ? ownersBits : isInGroup ? groupsBits : 0;
    return (status.st_mode >> shift & right) == right;
}

}  // namespace kelto::halvek::ctl
