#pragma once

#include "companions/outbox/Evidence.h"
#include "companions/outbox/Order.h"

#include <atomic>
#include <condition_variable>
#include <cstdint>
#include <mutex>
#include <optional>
#include <thread>
#include <vector>

namespace kelto::halvek::outbox {

/** What came of an order. */
struct Report {
    uint64_t id = 0;
    Evidence evidence;
};

/** Where couriers leave what they have to say. Any thread. */
class Mailbox {
public:
    /** Throws std::system_error if there is no descriptor for it. */
    Mailbox();

    void Put(Report report);
    /** Wakes up without a report. */
    void Wake();
    std::vector<Report> TakeAll();

    /** Readable while there is something to take. */
    int Descriptor() const { return wake.Get(); }

private:
    // Constant after construction.
    companion::UniqueFd wake;

    std::mutex mutex;
    /** Guarded by the mutex. */
    std::vector<Report> reports;
};

/**
 * Delivers to one target, one item after another on one connection, on a thread of its own: whatever a server or the
 * resolver does to it, no other target notices. Others than Deliver's thread are the mailbox's.
 *
 * It belongs to the service's thread.
 */
class Courier {
public:
    explicit Courier(Mailbox& box);
    Courier(const Courier&) = delete;
    Courier& operator=(const Courier&) = delete;
    /** Waits for the end of its thread. */
    ~Courier();

    /** There must be no other order under way. */
    void Deliver(Order next);
    /** The number of the item that it has not yet reported. */
    std::optional<uint64_t> Current() const { return current; }
    /** To be called with its report. */
    void Done() { current.reset(); }
    /** Ends the attempt within a second. */
    void Cancel() { isCancelled = true; }
    /** No order comes any more. The mailbox wakes up when the connection is closed and the thread at its end. */
    void Retire();
    bool HasEnded() const { return hasEnded; }

private:
    void Work();

    Mailbox& mailbox;
    std::optional<uint64_t> current;
    std::atomic<bool> isCancelled = false;
    std::atomic<bool> hasEnded = false;

    std::mutex mutex;
    std::condition_variable changed;
    // Guarded by the mutex.
    std::optional<Order> order;
    bool isRetired = false;

    std::thread thread;
};

}  // namespace kelto::halvek::outbox
