#pragma once

#include "companions/mqtt/AlarmStates.h"

#include <set>
#include <string>

namespace kelto::halvek::mqtt {

/** What a camera is known to have: the types of its events, and its alarm inputs. A plain value. */
struct CameraFacts {
    std::set<std::string> types;
    std::set<AlarmName> alarms;

    bool operator==(const CameraFacts&) const = default;
};

}  // namespace kelto::halvek::mqtt
