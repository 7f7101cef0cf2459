#pragma once

namespace kelto::msgbus {

struct MsgBusMsg;

/** Receives the messages of a subscription. */
class IMessageHandler {
public:
    IMessageHandler() = default;
    virtual ~IMessageHandler() = default;
    IMessageHandler(const IMessageHandler&) = delete;
    IMessageHandler& operator=(const IMessageHandler&) = delete;

    /**
     * Called for each message, one at a time, on a delivery thread of this subscription's own. It may block: that
     * delays the messages of this subscription only. What it throws is logged and delivery goes on.
     */
    virtual void HandleMessage(const MsgBusMsg& message) = 0;
};

}  // namespace kelto::msgbus
