#pragma once

#include "event/Event.h"

#include <string>

namespace kelto::halvek::event {

/** An analytics alert as the message-bus source saw it. */
class MsgBusEvent : public Event {
public:
    explicit MsgBusEvent(const Properties& eventProperties);

    std::string ToString() const override;
};

}  // namespace kelto::halvek::event
