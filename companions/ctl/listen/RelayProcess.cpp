#include "companions/ctl/listen/RelayProcess.h"

#include "companions/common/ClockState.h"
#include "companions/common/ListenerPipe.h"
#include "companions/ctl/listen/EventBacklog.h"

#include <fcntl.h>
#include <poll.h>
#include <sched.h>
#include <sys/prctl.h>
#include <sys/resource.h>
#include <sys/signalfd.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <chrono>
#include <csignal>
#include <exception>
#include <memory>
#include <optional>
#include <stdexcept>

namespace kelto::halvek::ctl {

namespace {

using companion::ClockState;
using companion::ListenerPipe;
using Milliseconds = EventBacklog::Milliseconds;

/** Between two looks at whether the caller is still there, and at what it takes. */
constexpr unsigned mostReadsAtOnce = 32;
constexpr int priority = -10;
constexpr std::array endingSignals = {SIGHUP, SIGINT, SIGQUIT, SIGTERM};

Milliseconds Now() {
    return std::chrono::duration_cast<Milliseconds>(std::chrono::steady_clock::now().time_since_epoch());
}

ReadTime TimeOfNow() {
    return {
        .milliseconds = ClockState::Now(), .sinceBoot = ClockState::SinceBoot(), .isSynced = ClockState::IsSynced()};
}

/**
 * The pipe must not fill because the machine is busy: for that a third of a second is enough. It never has more to do
 * than the daemon has just done, so nobody starves. Only root may ask for it.
 */
void ComeFirst() {
    sched_param first{};
    first.sched_priority = sched_get_priority_min(SCHED_RR);
    if (sched_setscheduler(0, SCHED_RR | SCHED_RESET_ON_FORK, &first) != 0) {
        setpriority(PRIO_PROCESS, 0, priority);
    }
}

void DetachStandardStreams() {
    const int null = open("/dev/null", O_RDWR | O_CLOEXEC);
    for (const int stream : {STDIN_FILENO, STDOUT_FILENO, STDERR_FILENO}) {
        dup2(null, stream);
    }
    close(null);
}

/** Signals that ask for the end, as something to wait for. The caller's handlers are of no use here. */
companion::UniqueFd HoldSignals() {
    sigset_t held;
    sigemptyset(&held);
    for (const int number : endingSignals) {
        sigaddset(&held, number);
    }
    sigprocmask(SIG_SETMASK, &held, nullptr);
    std::signal(SIGPIPE, SIG_DFL);
    return companion::UniqueFd(signalfd(-1, &held, SFD_CLOEXEC | SFD_NONBLOCK));
}

class Relay {
public:
    Relay(const EventRelay::Job& relayed, int callersSocket, int signals)
        : job(relayed), socket(callersSocket), signalFd(signals) {}

    void Run() {
        pipe.emplace(job.pipeName);
        if (job.makeOther) {
            other = job.makeOther();
        }
        Send(std::string_view(&RelayProcess::ready, 1));
        backlog.TakeLeftOver(pipe->LeftOver(), TimeOfNow());
        while (pipe || !outgoing.empty()) {
            if (!Wait()) {
                return;
            }
            EmptyPipe();
            TakeOther();
            if (isLast) {
                TakeTheRest();
            }
            HandOn();
        }
    }

private:
    /** False when it is time to end. */
    bool Wait() {
        constexpr short whenToSend = POLLOUT;
        std::array<pollfd, 4> waited{
            {{pipe ? pipe->Descriptor() : -1, POLLIN, 0},
             {socket, static_cast<short>((outgoing.empty() ? 0 : whenToSend) | (pipe ? POLLRDHUP : 0)), 0},
             {signalFd, POLLIN, 0},
             {HasRoomForOther() ? other->Descriptor() : -1, POLLIN, 0}}};
        if (poll(waited.data(), waited.size(), Patience()) < 0 && errno != EINTR) {
            throw std::runtime_error("poll");
        }
        isLast = isLast || (waited[1].revents & POLLRDHUP) != 0;
        return (waited[1].revents & (POLLHUP | POLLERR)) == 0 && waited[2].revents == 0;
    }

    /** In milliseconds; -1 for ever. */
    int Patience() const {
        const std::optional<Milliseconds> deadline = pipe && backlog.IsEmpty() ? backlog.Deadline() : std::nullopt;
        return deadline ? static_cast<int>(std::max<int64_t>(0, (*deadline - Now()).count() + 1)) : -1;
    }

    void EmptyPipe() {
        for (unsigned reads = 0; pipe && reads < mostReadsAtOnce; ++reads) {
            const std::string_view bytes = pipe->Read();
            if (bytes.empty()) {
                return;
            }
            backlog.Add(bytes, TimeOfNow(), Now());
        }
    }

    bool HasRoomForOther() const { return other != nullptr && pipe && outgoing.size() < EventRelay::mostWaiting; }

    /** What finds no room stays where it is. */
    void TakeOther() {
        if (HasRoomForOther()) {
            outgoing.append(other->Take());
        }
    }

    /** The caller wants no more than what is there. */
    void TakeTheRest() {
        pipe.reset();
        while (!backlog.IsEmpty() && !IsDone()) {
            backlog.TakeSome(Now());
        }
        TellDropped();
    }

    /** Until the caller takes no more, or there is no more. The pipe comes first all the time. */
    void HandOn() {
        while (SendOutgoing() && pipe && !isLast) {
            if (backlog.IsEmpty()) {
                backlog.CloseOverdue(TimeOfNow(), Now());
                TellDropped();
                SendOutgoing();
                return;
            }
            backlog.TakeSome(Now());
            EmptyPipe();
        }
    }

    void TakeEvent(const companion::ReceivedEvent& event, const ReadTime& time) {
        if (IsDone()) {
            return;
        }
        const std::string line = job.line(event, time);
        if (line.empty()) {
            return;
        }
        TellDropped();
        outgoing.append(line);
        ++taken;
        if (IsDone()) {
            pipe.reset();
        }
    }

    bool IsDone() const { return job.count != 0 && taken == job.count; }

    void TellDropped() {
        if (dropped > 0) {
            outgoing.append(job.droppedLine(dropped));
            dropped = 0;
        }
    }

    /** Whether the caller has taken all of it. */
    bool SendOutgoing() {
        outgoing.erase(0, Send(outgoing));
        return outgoing.empty();
    }

    /** How many bytes the caller has taken. That it has gone the next wait tells. */
    size_t Send(std::string_view text) const {
        const ssize_t sent = send(socket, text.data(), text.size(), MSG_NOSIGNAL | MSG_DONTWAIT);
        return sent < 0 ? 0 : static_cast<size_t>(sent);
    }

    const EventRelay::Job& job;
    const int socket;
    const int signalFd;
    std::optional<ListenerPipe> pipe;
    std::unique_ptr<LineSource> other;
    EventBacklog backlog{
        EventRelay::mostWaiting,
        [this](const companion::ReceivedEvent& event, const ReadTime& time) { TakeEvent(event, time); },
        [this](const companion::ReceivedEvent& event) { dropped += job.isMissed(event) ? 1 : 0; }};
    std::string outgoing;
    uint64_t taken = 0;
    uint64_t dropped = 0;
    bool isLast = false;
};

}  // namespace

void RelayProcess::Run(const EventRelay::Job& job, pid_t caller, companion::UniqueFd socket) {
    int status = 1;
    try {
        setsid();
        prctl(PR_SET_NAME, name);
        ComeFirst();
        const companion::UniqueFd signals = HoldSignals();
        prctl(PR_SET_PDEATHSIG, SIGTERM);
        DetachStandardStreams();
        if (getppid() == caller) {
            Relay(job, socket.Get(), signals.Get()).Run();
        }
        status = 0;
    } catch (const std::exception& failure) {
        const std::string reason = failed + std::string(failure.what());
        static_cast<void>(send(socket.Get(), reason.data(), reason.size(), MSG_NOSIGNAL | MSG_DONTWAIT));
    }
    _exit(status);
}

}  // namespace kelto::halvek::ctl
