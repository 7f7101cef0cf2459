#include "kelto/core/StandardError.h"

#include <fcntl.h>
#include <limits.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <ctime>

namespace kelto::core {

namespace {

constexpr int64_t longestWaitMs = 100;
constexpr int64_t betweenWaitsMs = 1000;

extern "C" void IgnoreBrokenPipe(int) {}

void KeepBrokenPipeFromKilling() {
    struct sigaction action {};
    if (sigaction(SIGPIPE, nullptr, &action) != 0 || (action.sa_flags & SA_SIGINFO) != 0 ||
        action.sa_handler != SIG_DFL) {
        return;
    }
    action = {};
    action.sa_handler = IgnoreBrokenPipe;
    action.sa_flags = SA_RESTART;
    sigaction(SIGPIPE, &action, nullptr);
}

/** Puts a description of our own, which does not wait, in the inherited one's place. */
bool OpenPipeAnew() {
    const int access = fcntl(STDERR_FILENO, F_GETFL) & O_ACCMODE;
    const int fd = open("/proc/self/fd/2", access | O_NONBLOCK | O_CLOEXEC);
    if (fd < 0) {
        return false;
    }
    const bool replaced = dup2(fd, STDERR_FILENO) == STDERR_FILENO;
    close(fd);
    return replaced;
}

bool HasRoom(int64_t waitMs) {
    pollfd standardError{STDERR_FILENO, POLLOUT, 0};
    return poll(&standardError, 1, static_cast<int>(waitMs)) > 0;
}

int64_t NowMs() {
    timespec now{};
    clock_gettime(CLOCK_MONOTONIC, &now);
    return int64_t{now.tv_sec} * 1000 + now.tv_nsec / 1000000;
}

}  // namespace

StandardError::StandardError() : kind(Prepare()) {}

StandardError::Kind StandardError::Prepare() {
    struct stat status {};
    if (fstat(STDERR_FILENO, &status) != 0 || (!S_ISFIFO(status.st_mode) && !S_ISSOCK(status.st_mode))) {
        return Kind::File;
    }
    KeepBrokenPipeFromKilling();
    if (S_ISSOCK(status.st_mode)) {
        return Kind::Socket;
    }
    return OpenPipeAnew() ? Kind::Pipe : Kind::ForeignPipe;
}

size_t StandardError::Write(std::string_view text) {
    if (kind == Kind::File) {
        // What a full disk refuses is lost, and there is nowhere left to report it.
        static_cast<void>(!write(STDERR_FILENO, text.data(), text.size()));
        return text.size();
    }
    std::string_view rest = text;
    int64_t deadlineMs = 0;
    while (!rest.empty()) {
        const ssize_t written = TryToWrite(rest);
        if (written >= 0) {
            rest.remove_prefix(static_cast<size_t>(written));
            waitedInVain.store(false, std::memory_order_relaxed);
        } else if (errno != EAGAIN) {
            // The reader has gone, or the place was closed: nobody is there to miss it.
            return text.size();
        } else if (!WaitForRoom(deadlineMs)) {
            break;
        }
    }
    return text.size() - rest.size();
}

ssize_t StandardError::TryToWrite(std::string_view text) const {
    if (kind == Kind::Socket) {
        const ssize_t sent = send(STDERR_FILENO, text.data(), text.size(), MSG_DONTWAIT | MSG_NOSIGNAL);
        // Something else may have been put in its place since.
        return sent < 0 && errno == ENOTSOCK ? write(STDERR_FILENO, text.data(), text.size()) : sent;
    }
    if (kind == Kind::ForeignPipe) {
        if (!HasRoom(0)) {
            errno = EAGAIN;
            return -1;
        }
        text = text.substr(0, PIPE_BUF);
    }
    return write(STDERR_FILENO, text.data(), text.size());
}

bool StandardError::WaitForRoom(int64_t& deadlineMs) {
    const int64_t start = NowMs();
    if (deadlineMs == 0) {
        if (waitedInVain.load(std::memory_order_relaxed) || start < nextWaitMs.load(std::memory_order_relaxed)) {
            return false;
        }
        deadlineMs = start + longestWaitMs;
    }
    // A signal that is handled meanwhile ends the call, not the wait.
    for (int64_t left = deadlineMs - start; left > 0; left = deadlineMs - NowMs()) {
        if (HasRoom(left)) {
            return true;
        }
    }
    nextWaitMs.store(deadlineMs + betweenWaitsMs, std::memory_order_relaxed);
    waitedInVain.store(true, std::memory_order_relaxed);
    return false;
}

}  // namespace kelto::core
