#include "event/SystemEvent.h"

namespace kelto::halvek::event {

SystemEvent::SystemEvent(const Properties& eventProperties) : Event(eventProperties) {}

std::string SystemEvent::ToString() const {
    return "{Event: SystemEvent}";
}

}  // namespace kelto::halvek::event
