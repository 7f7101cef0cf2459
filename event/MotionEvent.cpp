#include "event/MotionEvent.h"

namespace kelto::halvek::event {

MotionEvent::MotionEvent(const Properties& eventProperties) : Event(eventProperties) {}

std::string MotionEvent::ToString() const {
    return "{Event: MotionEvent}";
}

}  // namespace kelto::halvek::event
