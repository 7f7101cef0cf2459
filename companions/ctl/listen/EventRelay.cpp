#include "companions/ctl/listen/EventRelay.h"

#include "companions/common/ListenerPipe.h"
#include "companions/ctl/Failure.h"
#include "companions/ctl/listen/RelayProcess.h"

#include <poll.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <csignal>
#include <cstring>

namespace kelto::halvek::ctl {

namespace {

constexpr std::array endingSignals = {SIGHUP, SIGINT, SIGQUIT, SIGTERM, SIGPIPE};
/** The relay ends within a millisecond unless somebody has stopped it. */
constexpr int mostWaitsForEnd = 200;
constexpr int waitForEndMs = 10;

// For the signal handler.
std::atomic<int> relaySocket = -1;
std::atomic<pid_t> relayChild = -1;

bool HasEnded(pid_t child, int& status) {
    const pid_t ended = waitpid(child, &status, WNOHANG);
    return ended == child || (ended < 0 && errno != EINTR);
}

/** Waits for a relay whose socket was shut; one that does not end is killed. Calls only what a signal handler may. */
int StatusAtEnd(pid_t child) {
    int status = 0;
    for (int waits = 0; waits < mostWaitsForEnd; ++waits) {
        if (HasEnded(child, status)) {
            return status;
        }
        poll(nullptr, 0, waitForEndMs);
    }
    kill(child, SIGKILL);
    while (waitpid(child, &status, 0) < 0 && errno == EINTR) {
    }
    return status;
}

void EndRelayFirst(int number) {
    shutdown(relaySocket, SHUT_RDWR);
    StatusAtEnd(relayChild);
    signal(number, SIG_DFL);
    raise(number);
}

/** One that is ignored stays so. */
void CatchEndingSignals() {
    for (const int number : endingSignals) {
        struct sigaction action {};
        sigaction(number, nullptr, &action);
        if (action.sa_handler == SIG_DFL) {
            action.sa_handler = EndRelayFirst;
            action.sa_flags = 0;
            sigfillset(&action.sa_mask);
            sigaction(number, &action, nullptr);
        }
    }
}

}  // namespace

EventRelay::EventRelay(const Job& job)
    : pipePath(std::string(companion::ListenerPipe::defaultFolder) + "/" + job.pipeName + ".halvek.any") {
    Start(job);
    relayChild = child;
    relaySocket = socket.Get();
    CatchEndingSignals();
    WaitUntilReady();
}

EventRelay::~EventRelay() {
    Finish();
}

std::string_view EventRelay::Read() {
    ssize_t count = 0;
    do {
        count = read(socket.Get(), buffer.data(), buffer.size());
    } while (count < 0 && errno == EINTR);
    return {buffer.data(), count < 0 ? 0 : static_cast<size_t>(count)};
}

void EventRelay::StopReading() {
    shutdown(socket.Get(), SHUT_WR);
}

bool EventRelay::Finish() {
    if (child < 0) {
        return true;
    }
    shutdown(socket.Get(), SHUT_RDWR);
    const int status = StatusAtEnd(child);
    child = -1;
    if (!WIFEXITED(status)) {
        RemovePipe();
    }
    return WIFEXITED(status) && WEXITSTATUS(status) == 0;
}

void EventRelay::Start(const Job& job) {
    std::array<int, 2> ends{};
    if (socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, ends.data()) != 0) {
        throw Failure(std::string("events cannot be read: ") + std::strerror(errno));
    }
    socket.Reset(ends[0]);
    companion::UniqueFd childsEnd(ends[1]);
    const pid_t caller = getpid();
    child = fork();
    if (child == 0) {
        socket.Reset();
        RelayProcess::Run(job, caller, std::move(childsEnd));
    }
    if (child < 0) {
        throw Failure(std::string("events cannot be read: ") + std::strerror(errno));
    }
}

void EventRelay::WaitUntilReady() {
    char first = '\0';
    ssize_t count = 0;
    do {
        count = read(socket.Get(), &first, 1);
    } while (count < 0 && errno == EINTR);
    if (count == 1 && first == RelayProcess::ready) {
        return;
    }
    const std::string reason = count == 1 ? std::string(Read()) : "the process that reads them has ended";
    Finish();
    throw Failure("events cannot be read: " + reason);
}

/** Of a relay that could not do it itself. */
void EventRelay::RemovePipe() const {
    unlink(pipePath.c_str());
}

}  // namespace kelto::halvek::ctl
