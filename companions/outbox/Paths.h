#pragma once

#include "companions/common/EventPipe.h"

#include <string>

namespace kelto::halvek::outbox {

/** Where everything is. A plain value. */
struct Paths {
    std::string configuration = "/etc/halvek-outbox/outbox.conf";
    std::string secrets = "/etc/halvek-outbox/secrets";
    std::string knownHosts = "/etc/halvek-outbox/known_hosts";
    std::string esmtprc = "/etc/esmtprc";
    std::string socket = "/run/halvek-outbox/submit";
    std::string ram = "/run/halvek-outbox";
    std::string flash = "/var/spool/halvek-outbox";
    std::string eventPipe = companion::EventPipe::defaultPath;
};

}  // namespace kelto::halvek::outbox
