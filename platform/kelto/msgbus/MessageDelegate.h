#pragma once

#include "kelto/msgbus/IMessageHandler.h"
#include "kelto/msgbus/IMsgBus.h"

#include <string>

namespace kelto::msgbus {

/**
 * A subscription that calls an operation of an object. Subscribed from construction on; the destructor unsubscribes, so
 * the object that owns its delegate is never called after its own destruction has begun to tear the delegate down.
 */
template <typename Object>
class MessageDelegate : public IMessageHandler {
public:
    using Method = void (Object::*)(const MsgBusMsg&);

    MessageDelegate(IMsgBus* messageBus, const std::string& name, const std::string& domain, Object* targetObject,
                    Method targetMethod)
        : bus(messageBus), object(targetObject), method(targetMethod) {
        bus->Subscribe({.name = name, .domain = domain, .sender = {}, .path = {}}, this);
    }

    ~MessageDelegate() override { Cancel(); }

    /** Unsubscribes and forgets the bus; a second call does nothing. Returns only when no call is in flight. */
    void Cancel() {
        if (bus != nullptr) {
            bus->Unsubscribe(this);
            bus = nullptr;
        }
    }

    void HandleMessage(const MsgBusMsg& message) override { (object->*method)(message); }

private:
    IMsgBus* bus;
    Object* const object;
    const Method method;
};

}  // namespace kelto::msgbus
