#pragma once

#include <cstdint>
#include <ctime>

namespace kelto::halvek::outbox {

/** Milliseconds since the boot, sleep included. Nobody sets this clock. Any thread. */
inline int64_t Uptime() {
    timespec now{};
    clock_gettime(CLOCK_BOOTTIME, &now);
    return int64_t{now.tv_sec} * 1000 + now.tv_nsec / 1'000'000;
}

}  // namespace kelto::halvek::outbox
