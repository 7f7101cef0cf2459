#include "event/MotionEvent.h"

#include <utility>

namespace kelto::halvek::event {

MotionEvent::MotionEvent(const Properties& eventProperties) : Event(eventProperties) {}

MotionEvent::MotionEvent(Properties&& eventProperties) : Event(std::move(eventProperties)) {}

std::string MotionEvent::ToString() const {
    return "{Event: MotionEvent}";
}

}  // namespace kelto::halvek::event
