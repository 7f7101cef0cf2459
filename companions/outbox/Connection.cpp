#include "companions/outbox/Connection.h"

#include <sys/socket.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstring>
#include <utility>

namespace kelto::halvek::outbox {

namespace {

/** A mail may have some hundred recipients. */
constexpr size_t longestRequest = size_t{256} * 1024;

}  // namespace

Connection::Connection(companion::UniqueFd accepted) : connection(std::move(accepted)) {}

bool Connection::HasRequest() const {
    return text.find("\n\n") != std::string::npos;
}

std::string Connection::Peek() const {
    std::array<char, 16> piece{};
    const ssize_t length = recv(connection.Get(), piece.data(), piece.size(), MSG_PEEK | MSG_DONTWAIT);
    return {piece.data(), static_cast<size_t>(std::max<ssize_t>(length, 0))};
}

bool Connection::Receive() {
    std::array<char, size_t{16} * 1024> piece{};
    alignas(cmsghdr) std::array<char, CMSG_SPACE(4 * sizeof(int))> control{};
    iovec target{piece.data(), piece.size()};
    msghdr message{};
    message.msg_iov = &target;
    message.msg_iovlen = 1;
    message.msg_control = control.data();
    message.msg_controllen = control.size();
    const ssize_t length = recvmsg(connection.Get(), &message, MSG_CMSG_CLOEXEC | MSG_DONTWAIT);
    if (length < 0) {
        return errno == EAGAIN || errno == EINTR;
    }
    for (cmsghdr* header = CMSG_FIRSTHDR(&message); header != nullptr; header = CMSG_NXTHDR(&message, header)) {
        if (header->cmsg_level != SOL_SOCKET || header->cmsg_type != SCM_RIGHTS) {
            continue;
        }
        const size_t count = (header->cmsg_len - CMSG_LEN(0)) / sizeof(int);
        for (size_t i = 0; i < count; ++i) {
            int descriptor = -1;
            std::memcpy(&descriptor, CMSG_DATA(header) + i * sizeof(int), sizeof(int));
            attached.Reset(descriptor);
        }
    }
    text.append(piece.data(), static_cast<size_t>(length));
    return length > 0 && text.size() <= longestRequest;
}

uid_t Connection::Peer() const {
    ucred peer{};
    socklen_t size = sizeof(peer);
    return getsockopt(connection.Get(), SOL_SOCKET, SO_PEERCRED, &peer, &size) == 0 ? peer.uid : static_cast<uid_t>(-1);
}

void Connection::Answer(std::string_view answer) {
    unsent.append(answer);
    Flush();
}

/** False when he is gone. */
bool Connection::Flush() {
    while (!unsent.empty()) {
        const ssize_t sent = send(connection.Get(), unsent.data(), unsent.size(), MSG_NOSIGNAL | MSG_DONTWAIT);
        if (sent < 0) {
            return errno == EAGAIN || errno == EINTR;
        }
        unsent.erase(0, static_cast<size_t>(sent));
    }
    return true;
}

}  // namespace kelto::halvek::outbox
