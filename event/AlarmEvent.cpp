#include "event/AlarmEvent.h"

namespace kelto::halvek::event {

AlarmEvent::AlarmEvent(const Properties& eventProperties) : Event(eventProperties, 1) {}

std::string AlarmEvent::ToString() const {
    return "{Event: AlarmEvent}";
}

}  // namespace kelto::halvek::event
