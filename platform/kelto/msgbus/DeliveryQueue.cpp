#include "kelto/msgbus/DeliveryQueue.h"

#include "kelto/core/Logger.h"
#include "kelto/msgbus/IMessageHandler.h"

#include <exception>
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

void DeliveryQueue::Push(std::shared_ptr<const MsgBusMsg> message) {
    const std::lock_guard lock(mutex);
    bytes += message->size;
    messages.push_back(std::move(message));
    while (messages.size() > mostMessages || bytes > mostBytes) {
        bytes -= messages.front()->size;
        messages.pop_front();
        ++droppedCount;
    }
    changed.notify_all();
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
    const std::lock_guard lock(mutex);
    closed = true;
    changed.notify_all();
}

void DeliveryQueue::Run() {
    size_t dropped = 0;
    while (const std::shared_ptr<const MsgBusMsg> message = Take(dropped)) {
        if (dropped > 0) {
            Log().Warning("%zu messages were dropped, too many came at a time", dropped);
        }
        Deliver(*message);
    }
    const std::lock_guard lock(mutex);
    ended = true;
}

/** The next message, null at the end. Marks a delivery as in flight until the next call. */
std::shared_ptr<const MsgBusMsg> DeliveryQueue::Take(size_t& dropped) {
    std::unique_lock lock(mutex);
    deliverer = std::this_thread::get_id();
    delivering = false;
    changed.notify_all();
    changed.wait(lock, [this] { return closed || !messages.empty(); });
    if (closed) {
        return nullptr;
    }
    std::shared_ptr<const MsgBusMsg> message = std::move(messages.front());
    messages.pop_front();
    bytes -= message->size;
    dropped = messages.empty() ? std::exchange(droppedCount, 0) : 0;
    delivering = true;
    return message;
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
