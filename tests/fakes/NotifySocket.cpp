#include "tests/fakes/NotifySocket.h"

#include <sys/socket.h>
#include <sys/un.h>

#include <array>
#include <stdexcept>

namespace kelto::test {

NotifySocket::NotifySocket()
    : address("NOTIFY_SOCKET", folder.PathOf("notify")), socket(::socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0)) {
    sockaddr_un name{};
    name.sun_family = AF_UNIX;
    folder.PathOf("notify").copy(name.sun_path, sizeof(name.sun_path) - 1);
    if (bind(socket.Get(), reinterpret_cast<const sockaddr*>(&name), sizeof(name)) != 0) {
        throw std::runtime_error("cannot make a socket for notifications");
    }
}

std::vector<std::string> NotifySocket::Take() const {
    std::vector<std::string> notifications;
    std::array<char, 256> text{};
    for (ssize_t length = 0; length >= 0;) {
        length = recv(socket.Get(), text.data(), text.size(), MSG_DONTWAIT);
        if (length >= 0) {
            notifications.emplace_back(text.data(), static_cast<size_t>(length));
        }
    }
    return notifications;
}

}  // namespace kelto::test
