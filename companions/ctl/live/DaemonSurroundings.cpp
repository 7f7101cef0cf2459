#include "companions/ctl/live/DaemonSurroundings.h"

#include "companions/common/UniqueFd.h"
#include "companions/ctl/Failure.h"
#include "companions/ctl/live/DaemonProcess.h"
#include "companions/ctl/live/Proc.h"
#include "kelto/core/StringUtil.h"

#include <fcntl.h>
#include <grp.h>
#include <sched.h>
#include <sys/prctl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <vector>

namespace kelto::halvek::ctl {

namespace {

constexpr int octal = 8;
/** These lead to the daemon's own journal and to its service manager, which are not ours to talk to. */
constexpr std::array leftOut = {"JOURNAL_STREAM", "NOTIFY_SOCKET", "WATCHDOG_PID", "WATCHDOG_USEC"};

void Check(int result, const char* what) {
    if (result != 0) {
        throw Failure(std::string("cannot take the daemon's ") + what + ": " + std::strerror(errno));
    }
}

void TakeEnvironment(const Environment& environment) {
    clearenv();
    for (const auto& [name, value] : environment) {
        setenv(name.c_str(), value.c_str(), 1);
    }
    for (const char* const name : leftOut) {
        unsetenv(name);
    }
}

std::vector<std::string> Words(const std::string& text) {
    std::string spaces = text;
    for (char& character : spaces) {
        character = character == '\t' ? ' ' : character;
    }
    return core::StringUtil::Split(spaces, ' ');
}

gid_t ParseId(const std::string& word) {
    return static_cast<gid_t>(std::strtoul(word.c_str(), nullptr, 10));
}

std::vector<gid_t> GroupsIn(const std::string& status) {
    std::vector<gid_t> groups;
    for (const std::string& word : Words(Proc::Field(status, "Groups"))) {
        if (!word.empty()) {
            groups.push_back(ParseId(word));
        }
    }
    return groups;
}

}  // namespace

bool DaemonSurroundings::MayEnter() {
    return geteuid() == 0;
}

void DaemonSurroundings::Enter(const DaemonProcess& daemon) {
    const std::string status = Proc::Read(Proc::Path(daemon.pid, "status")).value_or("");
    const companion::UniqueFd mounts(open(Proc::Path(daemon.pid, "ns/mnt").c_str(), O_RDONLY | O_CLOEXEC));
    if (!daemon.environment || status.empty() || !mounts.IsOpen()) {
        throw Failure("the daemon's surroundings are hidden");
    }
    Check(setns(mounts.Get(), CLONE_NEWNS), "view of the file system");
    Check(chdir("/"), "working folder");
    umask(static_cast<mode_t>(std::strtoul(Proc::Field(status, "Umask").c_str(), nullptr, octal)));
    const std::vector<gid_t> groups = GroupsIn(status);
    const gid_t group = ParseId(Words(Proc::Field(status, "Gid")).front());
    Check(setgroups(groups.size(), groups.data()), "groups");
    Check(setresgid(group, group, group), "group");
    Check(setresuid(daemon.uid, daemon.uid, daemon.uid), "user");
    Check(prctl(PR_SET_NO_NEW_PRIVS, 1, 0, 0, 0), "renunciation of rights");
    TakeEnvironment(*daemon.environment);
}

}  // namespace kelto::halvek::ctl
