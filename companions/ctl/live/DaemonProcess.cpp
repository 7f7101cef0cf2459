#include "companions/ctl/live/DaemonProcess.h"

#include "companions/common/EventPipe.h"
#include "companions/ctl/live/Proc.h"
#include "kelto/core/StringUtil.h"

#include <pwd.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cstdlib>
#include <ctime>
#include <tuple>

namespace kelto::halvek::ctl {

namespace {

constexpr const char* daemonName = "halvek";
/** As much of "EventServerSource" as the kernel keeps. */
constexpr const char* listenersName = "EventServerSour";

int64_t NumberIn(const std::string& text) {
    return std::strtoll(text.c_str(), nullptr, 10);
}

/** Field 22 of /proc/PID/stat counts ticks from the boot; the name before it may hold anything. */
int64_t UptimeOf(int pid) {
    constexpr size_t startField = 19;
    const std::string text = Proc::Read(Proc::Path(pid, "stat")).value_or("");
    const size_t behindName = text.rfind(')');
    if (behindName == std::string::npos) {
        return 0;
    }
    const std::vector<std::string> fields = core::StringUtil::Split(text.substr(behindName + 2), ' ');
    timespec now{};
    clock_gettime(CLOCK_BOOTTIME, &now);
    return fields.size() <= startField ? 0 : int64_t{now.tv_sec} - NumberIn(fields[startField]) / sysconf(_SC_CLK_TCK);
}

/** Of those whose descriptors are hidden, the one of the service, or of the event pipe's owner: there may be others in
 * containers beside us. Of several the youngest. */
class Candidate {
public:
    explicit Candidate(int process) : pid(process), uptimeSec(UptimeOf(process)) {
        const std::string group = Proc::Read(Proc::Path(pid, "cgroup")).value_or("");
        isService = group.find("/halvek.service\n") != std::string::npos;
        struct stat own {};
        struct stat pipe {};
        isPipesOwner = stat(Proc::Path(pid, "").c_str(), &own) == 0 &&
                       stat(companion::EventPipe::defaultPath, &pipe) == 0 && own.st_uid == pipe.st_uid;
    }

    int Pid() const { return pid; }

    bool IsBetterThan(const Candidate& other) const {
        return std::tuple(isService, isPipesOwner, other.uptimeSec, pid) >
               std::tuple(other.isService, other.isPipesOwner, uptimeSec, other.pid);
    }

private:
    int pid;
    int64_t uptimeSec;
    bool isService = false;
    bool isPipesOwner = false;
};

/** One that has ended, and for whose status nobody has asked yet, still has its name, but no command line. */
bool HasEnded(int pid) {
    return Proc::Read(Proc::Path(pid, "cmdline")).value_or("").empty();
}

int FindPid() {
    if (const std::optional<RunningDaemon> known = RunningDaemon::Find()) {
        return known->pid;
    }
    std::optional<Candidate> best;
    for (const int pid : Proc::Processes()) {
        if (Proc::Name(pid) == daemonName && !Proc::Names(Proc::Path(pid, "fd")) && !HasEnded(pid)) {
            const Candidate candidate(pid);
            if (!best || candidate.IsBetterThan(*best)) {
                best = candidate;
            }
        }
    }
    return best ? best->Pid() : 0;
}

std::string UserName(uid_t uid) {
    const passwd* const entry = getpwuid(uid);
    return entry == nullptr ? std::to_string(uid) : entry->pw_name;
}

std::optional<int64_t> LimitOf(int pid) {
    const std::optional<std::string> limits = Proc::Read(Proc::Path(pid, "limits"));
    constexpr const char* name = "Max open files";
    const size_t begin = limits ? limits->find(name) : std::string::npos;
    if (begin == std::string::npos) {
        return std::nullopt;
    }
    return NumberIn(limits->substr(begin + std::char_traits<char>::length(name)));
}

bool HasListener(int pid) {
    const std::vector<std::string> threads = DaemonProcess::Threads(pid);
    return std::any_of(threads.begin(), threads.end(), [&](const std::string& thread) {
        return Proc::Read(Proc::Path(pid, "task/") + thread + "/comm").value_or("") ==
               std::string(listenersName) + "\n";
    });
}

std::optional<Environment> EnvironmentOf(int pid) {
    const std::optional<std::string> text = Proc::Read(Proc::Path(pid, "environ"));
    if (!text) {
        return std::nullopt;
    }
    Environment environment;
    for (const std::string& assignment : core::StringUtil::Split(*text, '\0')) {
        if (const size_t equals = assignment.find('='); equals != std::string::npos && equals > 0) {
            environment[assignment.substr(0, equals)] = assignment.substr(equals + 1);
        }
    }
    return environment;
}

}  // namespace

std::optional<DaemonProcess> DaemonProcess::Find() {
    const int pid = FindPid();
    const std::optional<std::string> status = pid == 0 ? std::nullopt : Proc::Read(Proc::Path(pid, "status"));
    if (!status) {
        return std::nullopt;
    }
    DaemonProcess daemon;
    daemon.pid = pid;
    daemon.uid = static_cast<uid_t>(NumberIn(Proc::Field(*status, "Uid")));
    daemon.user = UserName(daemon.uid);
    daemon.uptimeSec = UptimeOf(pid);
    daemon.memoryKib = NumberIn(Proc::Field(*status, "VmRSS"));
    daemon.threads = NumberIn(Proc::Field(*status, "Threads"));
    daemon.descriptorLimit = LimitOf(pid);
    daemon.isListening = HasListener(pid);
    daemon.environment = EnvironmentOf(pid);
    return daemon;
}

std::vector<std::string> DaemonProcess::Threads(int pid) {
    return Proc::Names(Proc::Path(pid, "task")).value_or(std::vector<std::string>{});
}

}  // namespace kelto::halvek::ctl
