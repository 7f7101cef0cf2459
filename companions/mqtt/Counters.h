#pragma once

#include <cstdint>

namespace kelto::halvek::mqtt {

/** What became of the events: each that was received is in one of the others, or still waits. A plain value. */
struct Counters {
    /** Of a type that is published. */
    uint64_t received = 0;
    /** The broker has acknowledged them. */
    uint64_t sent = 0;
    /** They gave way to younger ones. */
    uint64_t droppedFull = 0;
    /** They had waited for too long. */
    uint64_t droppedOld = 0;
    /** Their type makes a topic that is too long. */
    uint64_t droppedTopic = 0;
    /** The broker did not take them, or would not have. */
    uint64_t refused = 0;
    /** Of those received, how many an earlier process had left in the pipe. */
    uint64_t stale = 0;
    /** What was posted over the broker and not passed on. */
    uint64_t refusedPosts = 0;

    /** How many of those received wait, or are on their way. */
    uint64_t Waiting() const { return received - sent - droppedFull - droppedOld - droppedTopic - refused; }

    bool operator==(const Counters&) const = default;
};

}  // namespace kelto::halvek::mqtt
