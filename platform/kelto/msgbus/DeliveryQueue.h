#pragma once

#include "kelto/msgbus/MsgBusMsg.h"
#include "kelto/osa/Runnable.h"
#include "kelto/osa/Thread.h"

#include <condition_variable>
#include <cstddef>
#include <deque>
#include <memory>
#include <mutex>
#include <optional>
#include <thread>

namespace kelto::msgbus {

class IMessageHandler;

/**
 * The messages on their way to one handler, and the thread that hands them over.
 *
 * Each subscription has one of its own, so that an action that blocks delays only its own source: with a shared
 * delivery thread one relay service that hangs would hold up every alarm of the camera. What comes faster than the
 * handler takes it waits here, up to 1,024 messages or 4 MiB; then the oldest goes, and a Warning says how many did
 * when the queue has drained. A single message of more than that goes at once, and only it. What still waits when the
 * subscription ends is dropped too, and told in one Warning with all that had to go before.
 */
class DeliveryQueue final : public osa::Runnable {
public:
    static constexpr size_t mostMessages = 1024;
    static constexpr size_t mostBytes = size_t{4} * 1024 * 1024;

    /** Starts the thread. @param messageHandler not owned; must live until Close has returned */
    explicit DeliveryQueue(IMessageHandler* messageHandler);

    /** Closes it and waits for the thread. Not from inside a delivery. */
    ~DeliveryQueue() override;

    /** Adds a message, or counts it as dropped if there is no memory for it. Any thread; never waits for a delivery. */
    void Push(std::shared_ptr<const MsgBusMsg> message) noexcept;

    /** Ends delivery. Returns only when no call is in flight; at once from inside one, which then is the last. What is
     * pushed from now on is forgotten. */
    void Close();

    /** Whether the calling thread is in a delivery of this queue. */
    bool IsDeliveringHere();

    /** Whether the thread is through, so that the destructor need not wait. */
    bool HasEnded();

    void Run() override;
    void Stop() override;

private:
    /** What there is to do next: a message to hand over, a loss to report, or both. */
    struct Next {
        std::shared_ptr<const MsgBusMsg> message;
        size_t dropped = 0;
    };

    void Add(std::shared_ptr<const MsgBusMsg> message);
    std::optional<Next> Take();
    void Deliver(const MsgBusMsg& message) const;

    IMessageHandler* const handler;
    osa::Thread thread;

    // Guarded by mutex.
    std::mutex mutex;
    std::condition_variable changed;
    std::deque<std::shared_ptr<const MsgBusMsg>> messages;
    size_t bytes = 0;
    size_t droppedCount = 0;
    bool closed = false;
    bool delivering = false;
    bool ended = false;
    std::thread::id deliverer;
};

}  // namespace kelto::msgbus
