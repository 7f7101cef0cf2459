#include "companions/page/ListeningSocket.h"

#include "camera/runtime/Failure.h"

#include <arpa/inet.h>
#include <netdb.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <systemd/sd-daemon.h>

#include <array>
#include <cerrno>
#include <cstring>
#include <memory>

namespace kelto::page {

namespace {

using companion::UniqueFd;
using vcam::Failure;

constexpr int backlog = 64;

struct FreeAddress {
    void operator()(addrinfo* found) const { freeaddrinfo(found); }
};
using AddressPtr = std::unique_ptr<addrinfo, FreeAddress>;

AddressPtr Resolve(const std::string& address, uint16_t port) {
    addrinfo wanted{};
    wanted.ai_flags = AI_PASSIVE | AI_NUMERICHOST | AI_NUMERICSERV;
    wanted.ai_socktype = SOCK_STREAM;
    addrinfo* found = nullptr;
    if (getaddrinfo(address.c_str(), std::to_string(port).c_str(), &wanted, &found) != 0) {
        throw Failure("\"" + address + "\" is no address");
    }
    return AddressPtr(found);
}

UniqueFd Listen(const std::string& address, uint16_t port) {
    const AddressPtr where = Resolve(address, port);
    UniqueFd made(socket(where->ai_family, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0));
    const int yes = 1;
    setsockopt(made.Get(), SOL_SOCKET, SO_REUSEADDR, &yes, sizeof(yes));
    if (bind(made.Get(), where->ai_addr, where->ai_addrlen) != 0 || listen(made.Get(), backlog) != 0) {
        throw Failure("Cannot listen at " + address + ", port " + std::to_string(port) + ": " + std::strerror(errno));
    }
    return made;
}

UniqueFd TakeOrListen(const std::string& address, uint16_t port) {
    const int given = sd_listen_fds(1);
    if (given > 1) {
        throw Failure("The service manager has more than one socket for the page");
    }
    if (given <= 0) {
        return Listen(address, port);
    }
    vcam::Check(sd_is_socket(SD_LISTEN_FDS_START, AF_UNSPEC, SOCK_STREAM, 1), "Cannot use the given socket");
    return UniqueFd(SD_LISTEN_FDS_START);
}

}  // namespace

ListeningSocket::ListeningSocket(const std::string& address, uint16_t port) : socket(TakeOrListen(address, port)) {}

bool ListeningSocket::IsLoopback() const {
    sockaddr_storage bound{};
    socklen_t size = sizeof(bound);
    getsockname(socket.Get(), reinterpret_cast<sockaddr*>(&bound), &size);
    if (bound.ss_family == AF_INET) {
        const auto* const ipv4 = reinterpret_cast<const sockaddr_in*>(&bound);
        return (ntohl(ipv4->sin_addr.s_addr) >> 24U) == IN_LOOPBACKNET;
    }
    const auto* const ipv6 = reinterpret_cast<const sockaddr_in6*>(&bound);
    return bound.ss_family == AF_INET6 && IN6_IS_ADDR_LOOPBACK(&ipv6->sin6_addr);
}

std::string ListeningSocket::Url() const {
    sockaddr_storage bound{};
    socklen_t size = sizeof(bound);
    getsockname(socket.Get(), reinterpret_cast<sockaddr*>(&bound), &size);
    if (bound.ss_family == AF_INET6) {
        const auto* const ipv6 = reinterpret_cast<const sockaddr_in6*>(&bound);
        return "http://[::1]:" + std::to_string(ntohs(ipv6->sin6_port)) + "/";
    }
    const auto* const ipv4 = reinterpret_cast<const sockaddr_in*>(&bound);
    return "http://127.0.0.1:" + std::to_string(ntohs(ipv4->sin_port)) + "/";
}

}  // namespace kelto::page
