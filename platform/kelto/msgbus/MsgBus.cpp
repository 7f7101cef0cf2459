#include "kelto/msgbus/MsgBus.h"

#include "kelto/core/Logger.h"
#include "kelto/msgbus/IMessageHandler.h"
#include "kelto/osa/MutexAutoLock.h"

#include <algorithm>

namespace kelto::msgbus {

MsgBus::MsgBus()
    : lock("MsgBus::Lock"),
      listener([this](const MessageFilter& filter, const auto& message) { Deliver(filter, message); }) {
    // Made now if there is none: who needs it later may be a destructor, or the listening thread, which nobody starts
    // again.
    core::Logger::GetLogger("kelto.msgbus");
}

MsgBus::~MsgBus() = default;

void MsgBus::Start() {
    uint64_t change = 0;
    {
        const osa::MutexAutoLock guard(lock);
        if (started) {
            return;
        }
        change = listener.Start();
        started = true;
    }
    listener.WaitUntilSettled(change);
}

void MsgBus::Subscribe(const MessageFilter& filter, IMessageHandler* handler) {
    // Whatever can fail comes before the first change: a handler whose subscription has failed may be gone already.
    std::list<Subscription> added;
    added.push_back({filter, handler, std::make_unique<DeliveryQueue>(handler)});
    uint64_t change = 0;
    {
        const osa::MutexAutoLock guard(lock);
        change = listener.AddFilter(filter);
        subscriptions.splice(subscriptions.end(), added);
    }
    listener.WaitUntilSettled(change);
}

/** Needs no memory, as it is called by destructors. */
void MsgBus::Unsubscribe(IMessageHandler* handler) {
    std::list<Subscription> removed;
    {
        const osa::MutexAutoLock guard(lock);
        for (auto at = subscriptions.begin(); at != subscriptions.end();) {
            const auto next = std::next(at);
            if (at->handler == handler) {
                removed.splice(removed.end(), subscriptions, at);
            }
            at = next;
        }
        for (const Subscription& subscription : removed) {
            if (!IsWanted(subscription.filter)) {
                listener.RemoveFilter(subscription.filter);
            }
        }
        ended.remove_if([](const Subscription& subscription) { return subscription.queue->HasEnded(); });
    }
    for (const Subscription& subscription : removed) {
        subscription.queue->Close();
    }
    const osa::MutexAutoLock guard(lock);
    for (auto at = removed.begin(); at != removed.end();) {
        const auto next = std::next(at);
        if (at->queue->IsDeliveringHere()) {
            ended.splice(ended.end(), removed, at);
        }
        at = next;
    }
}

bool MsgBus::IsWanted(const MessageFilter& filter) const {
    return std::any_of(subscriptions.begin(), subscriptions.end(),
                       [&](const Subscription& subscription) { return subscription.filter == filter; });
}

void MsgBus::Deliver(const MessageFilter& filter, const std::shared_ptr<const MsgBusMsg>& message) {
    const osa::MutexAutoLock guard(lock);
    for (const Subscription& subscription : subscriptions) {
        if (subscription.filter == filter) {
            subscription.queue->Push(message);
        }
    }
}

}  // namespace kelto::msgbus
