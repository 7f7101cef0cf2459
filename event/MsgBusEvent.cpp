#include "event/MsgBusEvent.h"

namespace kelto::halvek::event {

MsgBusEvent::MsgBusEvent(const Properties& eventProperties) : Event(eventProperties) {}

std::string MsgBusEvent::ToString() const {
    return "{Event: MsgBusEvent}";
}

}  // namespace kelto::halvek::event
