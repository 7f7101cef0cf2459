#pragma once

#include "companions/common/UniqueFd.h"

#include <cstdint>
#include <string>

namespace kelto::page {

/** The socket that browsers connect to: the service manager's, if it has given us one, or one of our own. */
class ListeningSocket {
public:
    /** @throws vcam::Failure if the address is none, is not ours or is in use */
    ListeningSocket(const std::string& address, uint16_t port);

    int Get() const { return socket.Get(); }
    /** Whether only this machine reaches it. */
    bool IsLoopback() const;
    /** As the service is called from this machine, "http://127.0.0.1:8077/". */
    std::string Url() const;

private:
    companion::UniqueFd socket;
};

}  // namespace kelto::page
