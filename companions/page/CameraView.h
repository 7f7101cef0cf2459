#pragma once

#include <cstdint>
#include <map>
#include <string>
#include <utility>
#include <vector>

namespace kelto::companion {
class Json;
}

namespace kelto::page {

/** What is known of the camera. A plain value. */
struct CameraView {
    struct Relay {
        std::string bank;
        int32_t index = 0;
        bool on = false;
        bool polarity = false;
        int32_t mode = 0;
        int32_t onMs = 0;
        int32_t offMs = 0;
        int32_t pulseCount = 0;
        int32_t pulse = 0;  ///< the one under way, 0 if there is none
        int32_t pulses = 0;
    };

    bool isThere = false;
    /** Inputs that have told their state since the camera came; it tells a state only when it is set. */
    std::map<std::pair<std::string, int32_t>, bool> alarms;
    std::vector<Relay> relays;
    double position = 0;  ///< of the head, in degrees
    double target = 0;
    uint64_t timeToTarget = 0;  ///< microseconds
    int32_t idleState = 0;
    std::vector<int32_t> route;
    bool recordingA = false;
    bool recordingB = false;
    std::vector<std::pair<std::string, std::string>> faults;  ///< provider and kind

    /** Adds the keys and values of an object. */
    void Write(companion::Json& json) const;
};

}  // namespace kelto::page
