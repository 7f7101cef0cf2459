#pragma once

#include "companions/ctl/listen/EventRelay.h"

#include <sys/types.h>

namespace kelto::halvek::ctl {

/** What runs in the process of an EventRelay, and what the two say to each other before the first line. */
class RelayProcess {
public:
    /** The first byte: the pipe is there and lines follow, or the reason why there is none does. */
    static constexpr char ready = '+';
    static constexpr char failed = '-';

    /** What the process is called, in the 15 bytes that the kernel has for it. */
    static constexpr const char* name = "halvekctl-pipe";

    /**
     * Does the job until it is done or the caller has gone. To be called right after a fork.
     *
     * @param caller the process that forked
     * @param socket the end that lines are written to; the other one is the caller's
     */
    [[noreturn]] static void Run(const EventRelay::Job& job, pid_t caller, companion::UniqueFd socket);
};

}  // namespace kelto::halvek::ctl
