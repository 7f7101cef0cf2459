#pragma once

#include <string>

namespace kelto::msgbus {

class IMessageHandler;

/** The camera's message bus as sources and handlers see it. All operations may be called from any thread. */
class IMsgBus {
public:
    IMsgBus() = default;
    virtual ~IMsgBus() = default;
    IMsgBus(const IMsgBus&) = delete;
    IMsgBus& operator=(const IMsgBus&) = delete;

    /** Begins delivery to the subscriptions, present and future ones. On a bus that was started already it does
     * nothing. */
    virtual void Start() = 0;

    /**
     * Has a handler called for every message of a name and a domain. Never fails for want of a bus.
     *
     * @param handler not owned; must live until Unsubscribe has returned
     */
    virtual void Subscribe(const std::string& name, const std::string& domain, IMessageHandler* handler) = 0;

    /** Ends all subscriptions of a handler. Returns only when no call to it is in flight, at once from inside such a
     * call. */
    virtual void Unsubscribe(IMessageHandler* handler) = 0;
};

}  // namespace kelto::msgbus
