#include "companions/ctl/live/HeldPipe.h"

#include "companions/ctl/Failure.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

namespace kelto::halvek::ctl {

namespace {

constexpr int heldCapacity = 1 << 20;

}  // namespace

HeldPipe::HeldPipe(const std::string& path) : pipe(open(path.c_str(), O_RDWR | O_NONBLOCK | O_CLOEXEC)) {
    struct stat status {};
    if (!pipe.IsOpen() || fstat(pipe.Get(), &status) != 0) {
        throw Failure("cannot hold " + path + ": " + std::strerror(errno));
    }
    if (!S_ISFIFO(status.st_mode)) {
        throw Failure("cannot hold " + path + ": it is no named pipe");
    }
    capacity = fcntl(pipe.Get(), F_GETPIPE_SZ);
    // Without the right to do so it holds what it always held.
    static_cast<void>(fcntl(pipe.Get(), F_SETPIPE_SZ, heldCapacity));
}

HeldPipe::~HeldPipe() {
    // Refused while more than that waits in it; then it goes back to its size when nobody has it open.
    static_cast<void>(fcntl(pipe.Get(), F_SETPIPE_SZ, capacity));
}

}  // namespace kelto::halvek::ctl
