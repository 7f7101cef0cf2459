#pragma once

#include "event/Event.h"

#include <string>

namespace kelto::halvek::event {

/** A retired kind: system events come from outside now, so no source makes it. */
class SystemEvent : public Event {
public:
    explicit SystemEvent(const Properties& eventProperties);

    std::string ToString() const override;
};

}  // namespace kelto::halvek::event
