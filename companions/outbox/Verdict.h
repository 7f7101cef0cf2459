#pragma once

#include <string>

namespace kelto::halvek::outbox {

/** What is to become of an item and of its target after an attempt. A plain value. */
struct Verdict {
    enum class Kind {
        Delivered,
        /** The target cannot be had now: every item of it waits, longer each time. */
        Wait,
        /** The server's certificate is not valid yet, but the clock is not to be believed. It is no failure. */
        WaitForClock,
        /** Somebody has to do something about the target. */
        Hold,
        /** This item will never get through. */
        Fail,
        /** All was sent, and nobody knows whether it has arrived. */
        Uncertain,
        /** The server does not rename: once more, under the last name from the beginning. */
        WithoutRename,
        /** Some recipients have it, others may get it later. */
        Partly,
    };

    Kind kind = Kind::Wait;
    /** For people; one line. */
    std::string reason;
};

}  // namespace kelto::halvek::outbox
