#pragma once

#include "companions/mqtt/AlarmStates.h"

#include <set>
#include <string>

namespace kelto::halvek::mqtt {

/** What a camera is known to have: the types of its events, its alarm inputs and its picture. A plain value. */
struct CameraFacts {
    std::set<std::string> types;
    std::set<AlarmName> alarms;
    /** The file in which the camera keeps its latest picture. */
    std::string picture = "/tmp/snapshot/img2.jpg";

    bool operator==(const CameraFacts&) const = default;
};

}  // namespace kelto::halvek::mqtt
