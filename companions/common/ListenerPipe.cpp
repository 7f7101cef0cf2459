#include "companions/common/ListenerPipe.h"

#include <fcntl.h>
#include <poll.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <system_error>

namespace kelto::companion {

namespace {

constexpr size_t bufferSize = 65536;
/** A writer that goes on while the left-over is read must not hold us up for ever. */
constexpr size_t largestLeftOver = 2 * static_cast<size_t>(ListenerPipe::wantedCapacity);
// The daemon writes as the folder's group, which an ordinary umask would keep out.
constexpr mode_t mode = 0660;

[[noreturn]] void Fail(const std::string& what) {
    throw std::system_error(errno, std::generic_category(), what);
}

bool IsFifo(const UniqueFd& file) {
    struct stat status {};
    return fstat(file.Get(), &status) == 0 && S_ISFIFO(status.st_mode);
}

/** False if nothing has happened by then. */
bool WaitUntil(std::chrono::steady_clock::time_point deadline, pollfd& polled) {
    const auto left = std::chrono::ceil<std::chrono::milliseconds>(deadline - std::chrono::steady_clock::now());
    return left.count() > 0 && poll(&polled, 1, static_cast<int>(left.count())) > 0;
}

}  // namespace

ListenerPipe::ListenerPipe(const std::string& name, const std::string& folder)
    : path(folder + "/" + name + ".halvek.any"), buffer(bufferSize) {
    // Its name matches no event and not ".halvek.any": the daemon does not write to it yet.
    const std::string newPath = folder + "/." + name + ".new";
    const UniqueFd old = OpenLeftOver();
    ReadOut(old);
    MakeNew(newPath);
    Enlarge();
    if (rename(newPath.c_str(), path.c_str()) != 0) {
        const int error = errno;
        unlink(newPath.c_str());
        errno = error;
        Fail(path);
    }
    // What came between reading it out and replacing it.
    ReadOut(old);
}

ListenerPipe::~ListenerPipe() {
    Remove();
}

std::string_view ListenerPipe::Read() {
    ssize_t length = 0;
    do {
        length = read(pipe.Get(), buffer.data(), buffer.size());
    } while (length < 0 && errno == EINTR);
    if (length < 0 && errno != EAGAIN) {
        Fail(path);
    }
    return {buffer.data(), length < 0 ? 0 : static_cast<size_t>(length)};
}

void ListenerPipe::ReadToItsEnd(const std::function<void(std::string_view bytes)>& take) {
    // A pipe that we could write to ourselves would never end.
    UniqueFd readEnd(open(("/proc/self/fd/" + std::to_string(pipe.Get())).c_str(), O_RDONLY | O_NONBLOCK | O_CLOEXEC));
    Remove();
    if (readEnd.IsOpen()) {
        pipe = std::move(readEnd);
    }
    const auto deadline = std::chrono::steady_clock::now() + endPatience;
    pollfd polled{pipe.Get(), POLLIN, 0};
    while (WaitUntil(deadline, polled) && (polled.revents & POLLIN) != 0) {
        take(Read());
    }
}

UniqueFd ListenerPipe::OpenLeftOver() const {
    UniqueFd old(open(path.c_str(), O_RDONLY | O_NONBLOCK | O_NOFOLLOW | O_CLOEXEC));
    return old.IsOpen() && IsFifo(old) ? std::move(old) : UniqueFd();
}

void ListenerPipe::MakeNew(const std::string& newPath) {
    // A process that was killed half-way may have left it.
    if (unlink(newPath.c_str()) != 0 && errno != ENOENT) {
        Fail(newPath);
    }
    if (mkfifo(newPath.c_str(), mode) != 0) {
        Fail(newPath);
    }
    pipe.Reset(open(newPath.c_str(), O_RDWR | O_NONBLOCK | O_NOFOLLOW | O_CLOEXEC));
    if (!pipe.IsOpen() || fchmod(pipe.Get(), mode) != 0) {
        const int error = errno;
        unlink(newPath.c_str());
        errno = error;
        Fail(newPath);
    }
}

void ListenerPipe::Enlarge() {
    // A system may allow less; it never has less than a page to give.
    for (int wanted = wantedCapacity; fcntl(pipe.Get(), F_SETPIPE_SZ, wanted) < 0 && wanted > 4096;) {
        wanted /= 2;
    }
    capacity = fcntl(pipe.Get(), F_GETPIPE_SZ);
}

void ListenerPipe::ReadOut(const UniqueFd& old) {
    while (old.IsOpen() && leftOver.size() < largestLeftOver) {
        const ssize_t length = read(old.Get(), buffer.data(), buffer.size());
        if (length < 0 && errno == EINTR) {
            continue;
        }
        if (length <= 0) {
            return;
        }
        leftOver.append(buffer.data(), static_cast<size_t>(length));
    }
}

void ListenerPipe::Remove() const {
    if (IsInPlace()) {
        unlink(path.c_str());
    }
}

bool ListenerPipe::IsInPlace() const {
    struct stat ours {};
    struct stat there {};
    return fstat(pipe.Get(), &ours) == 0 && lstat(path.c_str(), &there) == 0 && ours.st_dev == there.st_dev &&
           ours.st_ino == there.st_ino;
}

}  // namespace kelto::companion
