#pragma once

#include "event/Event.h"

#include <string>

namespace kelto::halvek::event {

/** Whatever another process posted on the event pipe, of any type. */
class MotionEvent : public Event {
public:
    explicit MotionEvent(const Properties& eventProperties);
    /** Takes the properties over. */
    explicit MotionEvent(Properties&& eventProperties);

    std::string ToString() const override;
};

}  // namespace kelto::halvek::event
