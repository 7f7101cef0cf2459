#pragma once

#include "kelto/msgbus/IMsgBus.h"
#include "kelto/osa/Mutex.h"

#include <list>
#include <string>

namespace kelto::msgbus {

/** The book of the process's subscriptions. It has no transport yet: nothing is delivered, so nothing can be in flight.
 */
class MsgBus : public IMsgBus {
public:
    MsgBus() : lock("MsgBus::Lock") {}

    void Start() override;
    void Subscribe(const std::string& name, const std::string& domain, IMessageHandler* handler) override;
    void Unsubscribe(IMessageHandler* handler) override;

    /** Whether Start was called. */
    bool IsStarted() const;

    /** How many subscriptions there are. */
    size_t CountSubscriptions() const;

private:
    struct Subscription {
        std::string name;
        std::string domain;
        IMessageHandler* handler;
    };

    mutable osa::Mutex lock;
    bool started = false;
    std::list<Subscription> subscriptions;
};

}  // namespace kelto::msgbus
