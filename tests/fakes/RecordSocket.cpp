#include "tests/fakes/RecordSocket.h"

#include <sys/socket.h>
#include <unistd.h>

#include <array>
#include <stdexcept>

namespace kelto::test {

RecordSocket::RecordSocket() : readEnd(-1), savedStandardError(dup(STDERR_FILENO)) {
    std::array<int, 2> ends{};
    if (socketpair(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0, ends.data()) != 0) {
        throw std::runtime_error("socketpair failed");
    }
    readEnd = ends[0];
    dup2(ends[1], STDERR_FILENO);
    close(ends[1]);
}

RecordSocket::~RecordSocket() {
    dup2(savedStandardError, STDERR_FILENO);
    close(savedStandardError);
    close(readEnd);
}

std::vector<std::string> RecordSocket::TakeWrites() {
    std::vector<std::string> writes;
    std::string buffer(1 << 18, '\0');
    ssize_t count = 0;
    while ((count = recv(readEnd, buffer.data(), buffer.size(), MSG_DONTWAIT)) >= 0) {
        writes.emplace_back(buffer, 0, static_cast<size_t>(count));
    }
    return writes;
}

}  // namespace kelto::test
