#pragma once

#include "companions/ctl/recording/RecordedInput.h"

#include <cstddef>
#include <string>
#include <vector>

namespace kelto::halvek::ctl {

/** What was recorded, as far as it can be read. Times are in milliseconds. A plain value. */
struct Recording {
    /** A time in which the clock ran on. */
    struct Stretch {
        /** Since 1970. */
        int64_t from;
        int64_t to;
        /** Since the boot, when it began. */
        int64_t begin;

        int64_t End() const { return begin + (to - from); }
    };

    /** A time for which the head has rested and did not come to rest again, since the boot. */
    struct Rest {
        int64_t from;
        /** Not in it any more. */
        int64_t to;
    };

    /** The events that other settings would have met as well, in their order: posted ones, and what the camera said. If
     * that was not recorded, what the sources made of it, each once however many of them were set up. Timers are not
     * among them. */
    std::vector<RecordedInput> inputs;
    /** When it was recorded; the clock was set in between. */
    std::vector<Stretch> stretches;
    /** With the bus only. */
    std::vector<Rest> rests;
    /** Whether it is recorded what the camera said on the bus. */
    bool hasBus = false;
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
