#include "event/ParkEvent.h"

namespace kelto::halvek::event {

ParkEvent::ParkEvent(const Properties& eventProperties) : Event(eventProperties, 0) {}

std::string ParkEvent::ToString() const {
    return "{Event: ParkEvent}";
}

}  // namespace kelto::halvek::event
