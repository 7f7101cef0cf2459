#include "event/TimerEvent.h"

namespace kelto::halvek::event {

TimerEvent::TimerEvent(const Properties& eventProperties) : Event(eventProperties) {}

std::string TimerEvent::ToString() const {
    return "{Event: TimerEvent}";
}

}  // namespace kelto::halvek::event
