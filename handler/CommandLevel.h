#pragma once

#include "event/Event.h"

#include <cstdint>

namespace kelto::halvek::handler {

/** What the head's services rank a command by: 400 for an alarm, 900 for every other event. */
inline int32_t CommandLevel(const Event& event) {
    return event.GetPriority() < 1 ? 900 : 400;
}

}  // namespace kelto::halvek::handler
