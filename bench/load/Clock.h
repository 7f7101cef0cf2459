#pragma once

#include <cstdint>
#include <ctime>

namespace kelto::halvek::bench {

constexpr int64_t nsPerSecond = 1000000000;
constexpr int64_t nsPerMs = 1000000;

/** For a program under valgrind or a sanitizer on a loaded machine; nothing that goes well waits that long. */
constexpr int64_t patienceNs = 60 * nsPerSecond;

/** Nanoseconds of a clock. */
inline int64_t Now(clockid_t clock = CLOCK_MONOTONIC) {
    timespec time{};
    clock_gettime(clock, &time);
    return time.tv_sec * nsPerSecond + time.tv_nsec;
}

/** Sleeps until the monotonic clock has reached a time. */
inline void SleepUntil(int64_t when) {
    const timespec time{when / nsPerSecond, static_cast<long>(when % nsPerSecond)};
    while (clock_nanosleep(CLOCK_MONOTONIC, TIMER_ABSTIME, &time, nullptr) != 0) {
    }
}

}  // namespace kelto::halvek::bench
