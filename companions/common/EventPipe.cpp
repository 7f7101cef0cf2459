#include "companions/common/EventPipe.h"

#include "companions/common/PostedEvent.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <cstring>

namespace kelto::companion {

namespace {

/**
 * Keeps a SIGPIPE from this thread while it lives: the reader may go between our open and our write. One that was
 * pending before, or that came from elsewhere, stays.
 */
class PipeSignalHeld {
public:
    PipeSignalHeld() {
        sigemptyset(&pipeSignal);
        sigaddset(&pipeSignal, SIGPIPE);
        sigset_t pending;
        sigpending(&pending);
        wasPending = sigismember(&pending, SIGPIPE) == 1;
        pthread_sigmask(SIG_BLOCK, &pipeSignal, &before);
    }

    ~PipeSignalHeld() {
        if (isRaised && !wasPending) {
            const timespec atOnce{};
            while (sigtimedwait(&pipeSignal, nullptr, &atOnce) < 0 && errno == EINTR) {
            }
        }
        pthread_sigmask(SIG_SETMASK, &before, nullptr);
    }

    PipeSignalHeld(const PipeSignalHeld&) = delete;
    PipeSignalHeld& operator=(const PipeSignalHeld&) = delete;

    void Raised() { isRaised = true; }

private:
    sigset_t pipeSignal{};
    sigset_t before{};
    bool wasPending = false;
    bool isRaised = false;
};

EventPipe::Outcome OutcomeOfOpen(int error) {
    switch (error) {
        case ENXIO:
            return EventPipe::Outcome::NobodyReads;
        case ENOENT:
        case ENOTDIR:
        case ELOOP:
        case ENAMETOOLONG:
            return EventPipe::Outcome::NoFifo;
        case EACCES:
        case EPERM:
            return EventPipe::Outcome::NoPermission;
        default:
            return EventPipe::Outcome::Failed;
    }
}

EventPipe::Outcome WriteOnce(int fd, const std::string& block, int& error) {
    PipeSignalHeld held;
    const ssize_t written = write(fd, block.data(), block.size());
    error = written < 0 ? errno : 0;
    if (written >= 0) {
        return static_cast<size_t>(written) == block.size() ? EventPipe::Outcome::Posted : EventPipe::Outcome::Failed;
    }
    if (error == EPIPE) {
        held.Raised();
        return EventPipe::Outcome::NobodyReads;
    }
    return error == EAGAIN ? EventPipe::Outcome::Full : EventPipe::Outcome::Failed;
}

}  // namespace

EventPipe::Outcome EventPipe::Post(const PostedEvent& event) {
    return PostBlock(event.Block());
}

EventPipe::Outcome EventPipe::PostBlock(const std::string& block) {
    last = TryToPost(block);
    return last;
}

/** What is no pipe is never opened: opening a device may do something. */
EventPipe::Outcome EventPipe::TryToPost(const std::string& block) {
    struct stat status {};
    if (stat(path.c_str(), &status) != 0) {
        return Told(OutcomeOfOpen(errno), errno);
    }
    if (!S_ISFIFO(status.st_mode)) {
        return Told(Outcome::NoFifo, 0);
    }
    const int fd = open(path.c_str(), O_WRONLY | O_NONBLOCK | O_CLOEXEC);
    if (fd < 0) {
        return Told(OutcomeOfOpen(errno), errno);
    }
    int error = 0;
    const bool isFifo = fstat(fd, &status) == 0 && S_ISFIFO(status.st_mode);
    const Outcome result = isFifo ? WriteOnce(fd, block, error) : Outcome::NoFifo;
    close(fd);
    return Told(result, error);
}

EventPipe::Outcome EventPipe::Told(Outcome result, int error) {
    lastError = error;
    return result;
}

std::string EventPipe::Text() const {
    switch (last) {
        case Outcome::Posted:
            return "posted to " + path;
        case Outcome::NoFifo:
            return lastError == 0 ? path + " is no named pipe"
                                  : "there is no event pipe " + path + ": " + std::strerror(lastError);
        case Outcome::NobodyReads:
            return "nobody reads " + path + ": the daemon does not run";
        case Outcome::Full:
            return path + " is full: the daemon is busy, or has stopped reading";
        case Outcome::NoPermission:
            return "no permission to write to " + path;
        case Outcome::Failed:
            return "cannot write to " + path + ": " + std::strerror(lastError);
    }
    return "";
}

}  // namespace kelto::companion
