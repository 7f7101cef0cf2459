#include "companions/ctl/live/ReloadEvidence.h"

#include "companions/common/UniqueFd.h"
#include "companions/ctl/live/DaemonProcess.h"
#include "companions/ctl/live/Proc.h"

#include <fcntl.h>
#include <sys/ioctl.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <csignal>
#include <cstdlib>
#include <vector>

namespace kelto::halvek::ctl {

namespace {

/** A signal may be on its way through another thread of the daemon's. */
constexpr unsigned enoughLooks = 3;
constexpr int decimal = 10;
constexpr int hexadecimal = 16;

/** What waits for descriptors: the C library takes one or the other. */
bool IsSelect(int64_t number) {
    bool is = number == SYS_pselect6;
#ifdef SYS_select
    is = is || number == SYS_select;
#endif
#ifdef SYS__newselect
    is = is || number == SYS__newselect;
#endif
#ifdef SYS_pselect6_time64
    is = is || number == SYS_pselect6_time64;
#endif
    return is;
}

std::string MainThread(int pid, const char* file) {
    return Proc::Path(pid, "task/") + std::to_string(pid) + "/" + file;
}

/** Sources with a thread of their own call it after themselves: "TimerEventSourc". */
std::set<std::string> SourceThreads(int pid) {
    std::set<std::string> threads;
    for (const std::string& thread : DaemonProcess::Threads(pid)) {
        const std::string name = Proc::Read(Proc::Path(pid, "task/") + thread + "/comm").value_or("");
        if (name.find("EventS") != std::string::npos) {
            threads.insert(thread);
        }
    }
    return threads;
}

bool IsHangupPending(int pid) {
    const std::string status = Proc::Read(MainThread(pid, "status")).value_or("");
    for (const char* const field : {"SigPnd", "ShdPnd"}) {
        const uint64_t pending = std::strtoull(Proc::Field(status, field).c_str(), nullptr, hexadecimal);
        if ((pending >> (SIGHUP - 1) & 1U) != 0) {
            return true;
        }
    }
    return false;
}

}  // namespace

ReloadEvidence::ReloadEvidence(int daemon, bool isShown) : pid(daemon), changeShows(isShown), before(Now()) {}

std::optional<bool> ReloadEvidence::IsWaiting(int pid) {
    const std::optional<std::string> call = Proc::Read(MainThread(pid, "syscall"));
    if (!call) {
        return std::nullopt;
    }
    char* end = nullptr;
    const int64_t number = std::strtoll(call->c_str(), &end, decimal);
    return end != call->c_str() && IsSelect(number);
}

ReloadEvidence::Verdict ReloadEvidence::Look() {
    const State now = Now();
    const bool hasChanged = now.eventPipes > before.eventPipes || now.sourceThreads != before.sourceThreads;
    const std::optional<bool> isWaiting = IsWaiting(pid);
    if (!isWaiting) {
        return hasChanged ? Verdict::Taken : Verdict::NotYet;
    }
    const bool isDone = *isWaiting && now.wakings > before.wakings && !IsHangupPending(pid) && !HasCommands();
    seenDone = isDone ? seenDone + 1 : 0;
    if (seenDone < enoughLooks) {
        return Verdict::NotYet;
    }
    return hasChanged || !changeShows ? Verdict::Taken : Verdict::Refused;
}

bool ReloadEvidence::HasEnded() const {
    const std::string state = Proc::Field(Proc::Read(MainThread(pid, "status")).value_or(""), "State");
    // One that nobody has waited for yet has ended too.
    return state.empty() || state.front() == 'Z' || state.front() == 'X';
}

ReloadEvidence::State ReloadEvidence::Now() const {
    State state;
    if (const std::optional<DaemonDescriptors> descriptors = DaemonDescriptors::Of(pid)) {
        state.eventPipes = descriptors->eventPipe;
    }
    state.sourceThreads = SourceThreads(pid);
    const std::string status = Proc::Read(MainThread(pid, "status")).value_or("");
    state.wakings = std::strtoll(Proc::Field(status, "voluntary_ctxt_switches").c_str(), nullptr, decimal);
    return state;
}

/** Whether something waits in one of the daemon's pipes to itself. Looking takes nothing out. */
bool ReloadEvidence::HasCommands() const {
    for (const std::string& number : Proc::Names(Proc::Path(pid, "fd")).value_or(std::vector<std::string>{})) {
        const bool isStandard = number == "0" || number == "1" || number == "2";
        const std::string path = Proc::Path(pid, "fd/" + number);
        if (isStandard || !Proc::Link(path).starts_with("pipe:")) {
            continue;
        }
        const companion::UniqueFd pipe(open(path.c_str(), O_RDONLY | O_NONBLOCK | O_CLOEXEC));
        int waiting = 0;
        if (pipe.IsOpen() && ioctl(pipe.Get(), FIONREAD, &waiting) == 0 && waiting > 0) {
            return true;
        }
    }
    return false;
}

}  // namespace kelto::halvek::ctl
