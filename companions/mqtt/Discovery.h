#pragma once

#include "companions/mqtt/CameraFacts.h"
#include "companions/mqtt/Settings.h"

#include <set>
#include <string>
#include <string_view>

namespace kelto::halvek::mqtt {

/**
 * The description of the camera for home automation: one device with an event for each type, a sensor for each alarm
 * input, and counters.
 *
 * Home automation throws away what it does not expect: an event needs its type in the payload and in the description,
 * and states must be kept by the broker. Any thread.
 */
class Discovery {
public:
    /** @param removed components that the broker still knows from before: they are named so that they go. */
    static std::string Payload(const Settings& settings, const CameraFacts& facts,
                               const std::set<std::string>& removed = {});

    /** The names of its components. */
    static std::set<std::string> Components(const Settings& settings, const CameraFacts& facts);

    /** The names of the components in a description that the broker has kept; none if it is none of ours. */
    static std::set<std::string> ComponentsIn(std::string_view payload);
};

}  // namespace kelto::halvek::mqtt
