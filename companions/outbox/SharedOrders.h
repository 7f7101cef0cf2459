#pragma once

#include "companions/outbox/Order.h"

#include <chrono>
#include <cstdint>
#include <deque>
#include <mutex>
#include <optional>

namespace kelto::halvek::outbox {

/** Orders of targets that have no courier of their own. Any thread. */
class SharedOrders {
public:
    void Put(Order order);
    /** The one that waits longest, if it has waited for so long. */
    std::optional<Order> Take(std::chrono::milliseconds waited);
    /** That of an item, if nobody has taken it. */
    std::optional<Order> Take(uint64_t id);
    bool IsEmpty();

private:
    using Clock = std::chrono::steady_clock;

    struct Waiting {
        Order order;
        Clock::time_point since;
    };

    std::mutex mutex;
    /** Guarded by the mutex. */
    std::deque<Waiting> orders;
};

}  // namespace kelto::halvek::outbox
