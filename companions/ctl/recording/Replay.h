#pragma once

#include "companions/ctl/Model.h"
#include "companions/ctl/recording/Recording.h"

#include <cstddef>
#include <cstdint>
#include <map>
#include <string>
#include <vector>

namespace kelto::halvek::ctl {

/**
 * What settings would have done of what was recorded. Who acts on an event is asked of the daemon's own code; timers
 * are reckoned anew from the beginning of the recording on, and so is how long the head rests. A plain value.
 */
struct Replay {
    /** Times at the same distance from each other, in milliseconds since 1970. */
    struct Ticks {
        int64_t first;
        /** 0 of a single one. */
        int64_t interval;
        int64_t count;

        // clang-tidy 14 takes the comparison with zero in it for a null pointer. NOLINTNEXTLINE(modernize-use-nullptr)
        auto operator<=>(const Ticks& other) const = default;
    };

    struct Actions {
        /** Which of the inputs it acted on, and how often. */
        std::map<size_t, int32_t> inputs;
        /** When it acted by itself, by the timer or the source that waits for the head. */
        std::map<std::string, std::vector<Ticks>> ticks;

        int64_t Count() const;

        /** By one source; 0 for one that it does not have. */
        int64_t Count(const std::string& source) const;

        /** Whether the same was done at the same times. Which source was the cause makes no difference. */
        bool operator==(const Actions& other) const;
    };

    /** By the handler's group; each handler of the settings is there. */
    std::map<std::string, Actions> handlers;

    /** Plays it with the settings that the environment's KELTO_SETTINGS names. Throws Failure as AskModel does. */
    static Replay Of(const Recording& recording);
};

}  // namespace kelto::halvek::ctl
