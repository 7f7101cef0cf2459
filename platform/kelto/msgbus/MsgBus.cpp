#include "kelto/msgbus/MsgBus.h"

#include "kelto/msgbus/IMessageHandler.h"
#include "kelto/osa/MutexAutoLock.h"

namespace kelto::msgbus {

MsgBus::MsgBus()
    : lock("MsgBus::Lock"),
      listener([this](const MessageFilter& filter, const auto& message) { Deliver(filter, message); }) {}

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
    uint64_t change = 0;
    {
        const osa::MutexAutoLock guard(lock);
        subscriptions.push_back({filter, handler, std::make_unique<DeliveryQueue>(handler)});
        change = listener.SetFilters(Filters());
    }
    listener.WaitUntilSettled(change);
}

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
        listener.SetFilters(Filters());
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

std::set<MessageFilter> MsgBus::Filters() const {
    std::set<MessageFilter> filters;
    for (const Subscription& subscription : subscriptions) {
        filters.insert(subscription.filter);
    }
    return filters;
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
