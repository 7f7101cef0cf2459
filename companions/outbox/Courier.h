#pragma once

#include "companions/common/UniqueFd.h"
#include "companions/outbox/Mailbox.h"
#include "companions/outbox/Order.h"
#include "companions/outbox/SharedOrders.h"
#include "companions/outbox/Trip.h"

#include <atomic>
#include <mutex>
#include <optional>
#include <thread>

namespace kelto::halvek::outbox {

/**
 * Delivers to one target, one item after another on one connection, on a thread of its own. Where its server leaves it
 * waiting, it takes along what is to go to targets without a courier.
 *
 * It belongs to the service's thread.
 */
class Courier {
public:
    /** Throws std::system_error if there is no thread or no descriptor for it. */
    Courier(Mailbox& box, SharedOrders& others);
    Courier(const Courier&) = delete;
    Courier& operator=(const Courier&) = delete;
    /** Waits for the end of its thread. */
    ~Courier();

    /** There must be no other order of this target under way. */
    void Deliver(Order next);
    /** There are orders to take along. */
    void Wake();
    /**
     * No order comes any more. The mailbox wakes up when what is under way is done, the connections are closed and the
     * thread is at its end.
     */
    void Retire();
    bool HasEnded() const { return hasEnded; }

private:
    void Work();
    bool TakeOrders(Trip& trip);

    Mailbox& mailbox;
    SharedOrders& shared;
    const companion::UniqueFd wake;
    std::atomic<bool> hasEnded = false;

    std::mutex mutex;
    // Guarded by the mutex.
    std::optional<Order> order;
    bool isRetired = false;

    std::thread thread;
};

}  // namespace kelto::halvek::outbox
