#pragma once

#include "companions/common/ReceivedEvent.h"

#include <chrono>
#include <cstdint>

namespace kelto::halvek::mqtt {

/** An event on its way to the broker, stamped when it was read. A plain value. */
struct QueuedEvent {
    using Milliseconds = std::chrono::milliseconds;

    companion::ReceivedEvent event;
    /** Rises with every event, over restarts within one boot too. */
    uint64_t number = 0;
    /** Milliseconds since 1970, in UTC. */
    int64_t time = 0;
    bool isClockSynced = false;
    /** On the clock that never steps. */
    Milliseconds receivedAt{};
    /** Number of the connection that was up when it was read; 0 for none. */
    uint64_t connection = 0;
    /** Which change of its alarm it is; 0 for an event that is no alarm's. */
    uint64_t alarmVersion = 0;

    /** What it takes of the queue's room, in bytes. */
    size_t Size() const;
};

}  // namespace kelto::halvek::mqtt
