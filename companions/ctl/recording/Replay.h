#pragma once

#include "companions/ctl/Model.h"
#include "companions/ctl/recording/Recording.h"

#include <cstdint>
#include <map>
#include <set>
#include <string>

namespace kelto::halvek::ctl {

/**
 * What settings would have done of what was recorded. Who acts on an event is asked of the daemon's own code; timers
 * are reckoned anew, each from the beginning of a stretch on. A plain value.
 */
struct Replay {
    struct Actions {
        /** Which of the inputs it acted on. */
        std::set<size_t> inputs;
        /** How often it acted by each timer source. */
        std::map<std::string, int64_t> ticks;

        int64_t Count() const;
        bool operator==(const Actions& other) const = default;
    };

    /** By the handler's group; each handler of the settings is there. */
    std::map<std::string, Actions> handlers;

    /** Plays it with the settings that the environment's KELTO_SETTINGS names. Throws Failure as AskModel does. */
    static Replay Of(const Recording& recording);
};

}  // namespace kelto::halvek::ctl
