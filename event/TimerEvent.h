#pragma once

#include "event/Event.h"

#include <string>

namespace kelto::halvek::event {

/** A tick of a timer source. */
class TimerEvent : public Event {
public:
    explicit TimerEvent(const Properties& eventProperties);

    std::string ToString() const override;
};

}  // namespace kelto::halvek::event
