#include "companions/outbox/Request.h"

#include <poll.h>
#include <sys/socket.h>
#include <sys/un.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstring>
#include <utility>

namespace kelto::halvek::outbox {

namespace {

[[noreturn]] void GiveUp(int error) {
    throw Unreachable(std::string("the outbox cannot be reached: ") + std::strerror(error));
}

}  // namespace

Request::Request(const std::string& socketPath, std::chrono::milliseconds patience)
    : connection(socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0)), deadline(Clock::now() + patience) {
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    if (!connection.IsOpen()) {
        GiveUp(errno);
    }
    if (socketPath.size() >= sizeof(address.sun_path)) {
        GiveUp(ENAMETOOLONG);
    }
    std::copy(socketPath.begin(), socketPath.end(), address.sun_path);
    if (connect(connection.Get(), reinterpret_cast<const sockaddr*>(&address), sizeof(address)) != 0) {
        // So many wait that it would take no more.
        GiveUp(errno == EAGAIN ? ETIMEDOUT : errno);
    }
}

void Request::WaitFor(short events) {
    const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(deadline - Clock::now()).count();
    pollfd watched{connection.Get(), events, 0};
    const int ready = left > 0 ? poll(&watched, 1, static_cast<int>(left)) : 0;
    if (ready < 0 && errno != EINTR) {
        GiveUp(errno);
    }
    if (ready == 0) {
        GiveUp(ETIMEDOUT);
    }
}

void Request::Send(std::string_view text, int attached) {
    while (!text.empty()) {
        iovec piece{const_cast<char*>(text.data()), text.size()};
        alignas(cmsghdr) std::array<char, CMSG_SPACE(sizeof(int))> control{};
        msghdr message{};
        message.msg_iov = &piece;
        message.msg_iovlen = 1;
        if (attached >= 0) {
            message.msg_control = control.data();
            message.msg_controllen = control.size();
            cmsghdr* header = CMSG_FIRSTHDR(&message);
            header->cmsg_level = SOL_SOCKET;
            header->cmsg_type = SCM_RIGHTS;
            header->cmsg_len = CMSG_LEN(sizeof(int));
            std::memcpy(CMSG_DATA(header), &attached, sizeof(int));
        }
        const ssize_t sent = sendmsg(connection.Get(), &message, MSG_NOSIGNAL);
        if (sent > 0) {
            text.remove_prefix(static_cast<size_t>(sent));
            attached = -1;
        } else if (errno == EAGAIN) {
            WaitFor(POLLOUT);
        } else if (errno != EINTR) {
            GiveUp(errno);
        }
    }
}

/** Whether there may be more. */
bool Request::Receive() {
    std::array<char, 4096> piece{};
    for (;;) {
        const ssize_t length = recv(connection.Get(), piece.data(), piece.size(), 0);
        if (length >= 0) {
            received.append(piece.data(), static_cast<size_t>(length));
            return length > 0;
        }
        if (errno == EAGAIN) {
            WaitFor(POLLIN);
        } else if (errno != EINTR) {
            GiveUp(errno);
        }
    }
}

std::string Request::ReadLine() {
    while (received.find('\n') == std::string::npos) {
        if (!Receive()) {
            return std::exchange(received, {});
        }
    }
    const size_t end = received.find('\n');
    std::string line = received.substr(0, end);
    received.erase(0, end + 1);
    return line;
}

std::string Request::ReadAll() {
    while (Receive()) {
    }
    return std::exchange(received, {});
}

}  // namespace kelto::halvek::outbox
