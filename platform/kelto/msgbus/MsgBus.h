#pragma once

#include "kelto/msgbus/BusListener.h"
#include "kelto/msgbus/DeliveryQueue.h"
#include "kelto/msgbus/IMsgBus.h"
#include "kelto/osa/Mutex.h"

#include <list>
#include <memory>

namespace kelto::msgbus {

/**
 * The process's message bus: one listening thread, and one delivery thread a subscription.
 *
 * It stands for all connections of the process. Calls to services do not go through it: ProviderCall gives each calling
 * thread a connection of its own.
 */
class MsgBus : public IMsgBus {
public:
    MsgBus();
    ~MsgBus() override;

    void Start() override;
    void Subscribe(const MessageFilter& filter, IMessageHandler* handler) override;
    void Unsubscribe(IMessageHandler* handler) override;

private:
    struct Subscription {
        MessageFilter filter;
        IMessageHandler* handler;
        std::unique_ptr<DeliveryQueue> queue;
    };

    bool IsWanted(const MessageFilter& filter) const KELTO_THREAD_SAFETY(requires_capability(lock));
    void Deliver(const MessageFilter& filter, const std::shared_ptr<const MsgBusMsg>& message);

    osa::Mutex lock;
    bool started KELTO_THREAD_SAFETY(guarded_by(lock)) = false;
    std::list<Subscription> subscriptions KELTO_THREAD_SAFETY(guarded_by(lock));
    /** Ended from inside their own delivery: such a queue cannot wait for its own thread. */
    std::list<Subscription> ended KELTO_THREAD_SAFETY(guarded_by(lock));

    BusListener listener;
};

}  // namespace kelto::msgbus
