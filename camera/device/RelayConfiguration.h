#pragma once

#include <cstdint>

namespace kelto::vcam {

/** How a relay behaves. Intervals in milliseconds. */
struct RelayConfiguration {
    bool polarity = false;  ///< false: the contact is closed while the relay is on; true: while it is off
    int32_t mode = 3;
    int32_t onMs = 500;
    int32_t offMs = 500;
    int32_t pulseCount = 1;
};

}  // namespace kelto::vcam
