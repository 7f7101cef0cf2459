#include "kelto/msgbus/MsgBus.h"

#include "kelto/osa/MutexAutoLock.h"

namespace kelto::msgbus {

void MsgBus::Start() {
    const osa::MutexAutoLock guard(lock);
    started = true;
}

void MsgBus::Subscribe(const std::string& name, const std::string& domain, IMessageHandler* handler) {
    const osa::MutexAutoLock guard(lock);
    subscriptions.push_back({name, domain, handler});
}

void MsgBus::Unsubscribe(IMessageHandler* handler) {
    const osa::MutexAutoLock guard(lock);
    subscriptions.remove_if([handler](const Subscription& subscription) { return subscription.handler == handler; });
}

bool MsgBus::IsStarted() const {
    const osa::MutexAutoLock guard(lock);
    return started;
}

size_t MsgBus::CountSubscriptions() const {
    const osa::MutexAutoLock guard(lock);
    return subscriptions.size();
}

}  // namespace kelto::msgbus
