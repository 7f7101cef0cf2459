#pragma once

#include <string_view>

namespace kelto::companion {

/**
 * Tells the service manager how a service does.
 *
 * The library's sd_notify waits for a manager that is busy; a service that owns an output pipe must not. Any thread.
 */
class ServiceManager {
public:
    /**
     * Sends lines as sd_notify(3) has them, "READY=1" for instance. False if there is a manager and it did not get
     * them, which it will not a moment later either: what it missed is in the next state that it is told.
     */
    static bool Tell(std::string_view state);
};

}  // namespace kelto::companion
