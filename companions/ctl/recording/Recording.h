#pragma once

#include "companions/ctl/recording/RecordedInput.h"

#include <cstddef>
#include <string>
#include <vector>

namespace kelto::halvek::ctl {

/** What was recorded, as far as it can be read. A plain value. */
struct Recording {
    /** A time in which the clock ran on. In milliseconds since 1970. */
    struct Stretch {
        int64_t from;
        int64_t to;
    };

    /** The events that other settings would have met as well, in their order: posted ones, and those of the camera. A
     * source of the daemon's tells of each once, however many of them were set up. Timers are not among them. */
    std::vector<RecordedInput> inputs;
    /** When it was recorded; the clock was set in between. */
    std::vector<Stretch> stretches;
    /** Events that were dropped while it was recorded. */
    int64_t missing = 0;
    /** Lines that could not be read. */
    size_t unreadable = 0;

    /**
     * Reads FILE.1, if there is one, and FILE.
     *
     * @throws Failure if FILE cannot be read, is larger than a recording ever is, or is none
     */
    static Recording Read(const std::string& path);
};

}  // namespace kelto::halvek::ctl
