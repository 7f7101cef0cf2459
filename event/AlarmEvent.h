#pragma once

#include "event/Event.h"

#include <string>

namespace kelto::halvek::event {

/** An alarm input that changed its state; the only kind of priority 1. */
class AlarmEvent : public Event {
public:
    explicit AlarmEvent(const Properties& eventProperties);

    std::string ToString() const override;
};

}  // namespace kelto::halvek::event
