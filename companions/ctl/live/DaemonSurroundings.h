#pragma once

#include <string>

namespace kelto::halvek::ctl {

struct DaemonProcess;

/** The running daemon's surroundings, for a process that is to do what it does. */
class DaemonSurroundings {
public:
    /**
     * Gives this process the daemon's view of the file system, its environment, umask, groups and user, and no way to
     * more rights. What is not the same: its filter of system calls, and the networks that it may use. For root, in a
     * process without other threads that is then good for nothing else.
     *
     * @throws Failure for the first of them that cannot be had
     */
    static void Enter(const DaemonProcess& daemon);

    /** Whether this user may. */
    static bool MayEnter();
};

}  // namespace kelto::halvek::ctl
