#pragma once

#include "kelto/msgbus/MessageFilter.h"

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

    /**
     * Begins delivery to the subscriptions, present and future ones. Returns when the bus has acknowledged the present
     * ones, after a second at most, at once if there is no bus: then the bus is looked for in the background. On a bus
     * that was started already it does nothing.
     */
    virtual void Start() = 0;

    /**
     * Has a handler called for every signal that the filter lets through. Never fails for want of a bus. On a started
     * bus it returns when the bus has acknowledged it, with the limits of Start.
     *
     * @param handler not owned; must live until Unsubscribe has returned
     */
    virtual void Subscribe(const MessageFilter& filter, IMessageHandler* handler) = 0;

    /** Ends all subscriptions of a handler. Returns only when no call to it is in flight, at once from inside such a
     * call. */
    virtual void Unsubscribe(IMessageHandler* handler) = 0;
};

}  // namespace kelto::msgbus
