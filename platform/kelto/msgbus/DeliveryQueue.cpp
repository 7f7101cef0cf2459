#include "kelto/msgbus/DeliveryQueue.h"

#include "kelto/core/Logger.h"
#include "kelto/core/UtcOffset.h"
#include "kelto/msgbus/IMessageHandler.h"

#include <exception>
#include <new>
#include <utility>

namespace kelto::msgbus {

namespace {

constexpr unsigned stackKiB = 1024;

core::Logger& Log() {
    return core::Logger::GetLogger("kelto.msgbus");
}

}  // namespace

DeliveryQueue::DeliveryQueue(IMessageHandler* messageHandler)
    : handler(messageHandler), thread("MsgBusDelivery", *this, stackKiB, 0) {
    thread.Run();
}

DeliveryQueue::~DeliveryQueue() {
    Stop();
    thread.Join();
}

void DeliveryQueue::Push(std::shared_ptr<const MsgBusMsg> message) noexcept {
    {
        const std::lock_guard lock(mutex);
        if (closed) {
            return;
        }
        Add(std::move(message));
        while (messages.size() > mostMessages || bytes > mostBytes) {
            bytes -= messages.front()->size;
            messages.pop_front();
            ++droppedCount;
        }
    }
    // Not under the lock: the thread that this wakes up would only wait again, for the lock.
    changed.notify_all();
}

void DeliveryQueue::Add(std::shared_ptr<const MsgBusMsg> message) {
    const size_t size = message->size;
    if (size > mostBytes) {
        // It would drive out all the others and not stay itself.
        ++droppedCount;
        return;
    }
    try {
        messages.push_back(std::move(message));
        bytes += size;
    } catch (const std::bad_alloc&) {
        ++droppedCount;
    }
}

void DeliveryQueue::Close() {
    Stop();
    std::unique_lock lock(mutex);
    if (std::this_thread::get_id() != deliverer) {
        changed.wait(lock, [this] { return !delivering; });
    }
}

bool DeliveryQueue::IsDeliveringHere() {
    const std::lock_guard lock(mutex);
    return delivering && std::this_thread::get_id() == deliverer;
}

bool DeliveryQueue::HasEnded() {
    const std::lock_guard lock(mutex);
    return ended;
}

void DeliveryQueue::Stop() {
    size_t lost = 0;
    {
        const std::lock_guard lock(mutex);
        closed = true;
        lost = std::exchange(droppedCount, 0) + messages.size();
        messages.clear();
        bytes = 0;
        changed.notify_all();
    }
    if (lost > 0) {
        Log().Warning("%zu messages were dropped, their subscription has ended", lost);
    }
}

void DeliveryQueue::Run() {
    while (const std::optional<Next> next = Take()) {
        if (next->dropped > 0) {
            Log().Warning("%zu messages were dropped, too many came at a time", next->dropped);
        }
        if (next->message != nullptr) {
            // It may have been waiting for it over a change of the clocks, and the handler's records count by them.
            core::UtcOffset::Refresh();
            Deliver(*next->message);
        }
    }
    const std::lock_guard lock(mutex);
    ended = true;
}

/** Waits for the next thing to do; nothing at the end. Marks a delivery as in flight until the next call. */
std::optional<DeliveryQueue::Next> DeliveryQueue::Take() {
    std::unique_lock lock(mutex);
    deliverer = std::this_thread::get_id();
    delivering = false;
    changed.notify_all();
    // A single message that is too large is dropped without one left to deliver.
    changed.wait(lock, [this] { return closed || !messages.empty() || droppedCount > 0; });
    if (closed) {
        return std::nullopt;
    }
    Next next;
    if (!messages.empty()) {
        next.message = std::move(messages.front());
        messages.pop_front();
        bytes -= next.message->size;
    }
    next.dropped = messages.empty() ? std::exchange(droppedCount, 0) : 0;
    delivering = true;
    return next;
}

void DeliveryQueue::Deliver(const MsgBusMsg& message) const {
    try {
        handler->HandleMessage(message);
    } catch (const std::exception& exception) {
        Log().Error("%s", exception.what());
    } catch (...) {
        Log().Error("A message handler threw an unknown exception");
    }
}

}  // namespace kelto::msgbus
