#include "tests/fakes/SilentSocket.h"

#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <stdexcept>

namespace kelto::test {

SilentSocket::SilentSocket(const std::string& socketPath)
    : path(socketPath), fd(socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0)) {
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    path.copy(address.sun_path, sizeof(address.sun_path) - 1);
    // The system accepts on its own as many as may wait.
    if (bind(fd.Get(), reinterpret_cast<const sockaddr*>(&address), sizeof(address)) != 0 ||
        listen(fd.Get(), 64) != 0) {
        throw std::runtime_error("cannot listen at " + path);
    }
}

SilentSocket::~SilentSocket() {
    unlink(path.c_str());
}

}  // namespace kelto::test
