#include "companions/common/ServiceManager.h"

#include "companions/common/UniqueFd.h"

#include <sys/socket.h>
#include <sys/un.h>

#include <cstddef>
#include <cstdlib>
#include <cstring>

namespace kelto::companion {

bool ServiceManager::Tell(std::string_view state) {
    const char* const path = std::getenv("NOTIFY_SOCKET");
    if (path == nullptr || *path == '\0') {
        return true;
    }
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    const size_t length = std::strlen(path);
    if (length >= sizeof(address.sun_path)) {
        return false;
    }
    std::memcpy(address.sun_path, path, length);
    // A name that is no path begins with a zero byte, which stands there as "@".
    if (address.sun_path[0] == '@') {
        address.sun_path[0] = '\0';
    }
    const UniqueFd socket(::socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0));
    const auto size = static_cast<socklen_t>(offsetof(sockaddr_un, sun_path) + length);
    // The system's own kind of address.
    const auto* const target = reinterpret_cast<const sockaddr*>(&address);
    return socket.IsOpen() && sendto(socket.Get(), state.data(), state.size(), MSG_NOSIGNAL, target, size) >= 0;
}

}  // namespace kelto::companion
