#pragma once

#include <cstdint>

namespace kelto::halvek::ctl {

/** When something was read from a pipe or heard on the bus, by a clock that is right or not. */
struct ReadTime {
    /** Since 1970, in UTC. */
    int64_t milliseconds = 0;
    /** Milliseconds, by a clock that nobody sets. */
    int64_t sinceBoot = 0;
    bool isSynced = false;

    bool operator==(const ReadTime& other) const = default;
};

}  // namespace kelto::halvek::ctl
