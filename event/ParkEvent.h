#pragma once

#include "event/Event.h"

#include <string>

namespace kelto::halvek::event {

/** The head has been at rest for the dwell time. */
class ParkEvent : public Event {
public:
    explicit ParkEvent(const Properties& eventProperties);

    std::string ToString() const override;
};

}  // namespace kelto::halvek::event
