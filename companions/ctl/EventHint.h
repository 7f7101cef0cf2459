#pragma once

#include "companions/ctl/Model.h"

#include <optional>
#include <string>

namespace kelto::halvek::ctl {

/** What somebody may have meant who asks about an event on which nobody acts. Any thread. */
class EventHint {
public:
    /** Nothing of an event that some source of the settings has. */
    static std::optional<std::string> For(const EventQuestion& event, const ModelAnswers& model);
};

}  // namespace kelto::halvek::ctl
