#pragma once

#include <cstdint>

namespace kelto::halvek::ctl {

/** What time() answers in this program, by which the daemon's filters go. Every other clock goes on. */
class ModelClock {
public:
    /** Seconds of UTC since 1970; from now on until the next call. */
    static void Set(int64_t now);
};

}  // namespace kelto::halvek::ctl
