#pragma once

#include "kelto/msgbus/IMsgBus.h"

namespace kelto::msgbus {

/** The bus of a camera that has none: nothing is ever said on it. */
class MsgBus : public IMsgBus {
public:
    MsgBus();
    ~MsgBus() override;

    void Start() override {}
    void Subscribe(const MessageFilter&, IMessageHandler*) override {}
    void Unsubscribe(IMessageHandler*) override {}
};

}  // namespace kelto::msgbus
