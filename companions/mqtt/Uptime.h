#pragma once

#include <chrono>
#include <ctime>

namespace kelto::halvek::mqtt {

/** Since the boot, sleep included: a clock that never steps. */
inline std::chrono::milliseconds Uptime() {
    timespec now{};
    clock_gettime(CLOCK_BOOTTIME, &now);
    return std::chrono::seconds(now.tv_sec) + std::chrono::milliseconds(now.tv_nsec / 1000000);
}

}  // namespace kelto::halvek::mqtt
