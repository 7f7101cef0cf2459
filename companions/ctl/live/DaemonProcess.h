#pragma once

#include "companions/ctl/Environment.h"

#include <sys/types.h>

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

namespace kelto::halvek::ctl {

/**
 * The running daemon as anybody may see it. What only its user and root may see is not there for others, which is never
 * the same as nothing. A plain value: how it was when it was looked at.
 */
struct DaemonProcess {
    int pid = 0;
    uid_t uid = 0;
    /** "halvek", or a number. */
    std::string user;
    /** Seconds that it has been running. */
    int64_t uptimeSec = 0;
    /** What it holds of the machine's memory, in KiB. */
    int64_t memoryKib = 0;
    int64_t threads = 0;
    /** Of a descriptor's number; nothing if it is hidden. */
    std::optional<int64_t> descriptorLimit;
    /** Whether a thread listens to the event pipe. */
    bool isListening = false;
    /** Nothing if it is hidden. */
    std::optional<Environment> environment;

    /**
     * It is known by its name and by an event pipe that it has open; by its name alone where its descriptors are
     * hidden. Nothing if there is none.
     */
    static std::optional<DaemonProcess> Find();

    /** The numbers of its threads, in byte order. A configuration brings new ones. */
    static std::vector<std::string> Threads(int pid);
};

}  // namespace kelto::halvek::ctl
