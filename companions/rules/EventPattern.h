#pragma once

#include "companions/common/ReceivedEvent.h"
#include "companions/rules/Condition.h"

#include <algorithm>
#include <string>
#include <utility>
#include <vector>

namespace kelto::companion::rules {

/** Which events are meant: of one type, with properties that hold. A plain value. Any thread. */
struct EventPattern {
    std::string type;
    /** Each key with what its property must be; all must hold. */
    std::vector<std::pair<std::string, Condition>> where;

    bool Matches(const ReceivedEvent& event) const {
        return event.type == type && std::ranges::all_of(where, [&](const auto& wanted) {
                   return wanted.second.Holds(event.Find(wanted.first));
               });
    }

    bool operator==(const EventPattern&) const = default;
};

}  // namespace kelto::companion::rules
