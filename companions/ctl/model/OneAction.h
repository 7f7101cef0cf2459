#pragma once

#include "companions/ctl/Model.h"

#include <cstdint>
#include <functional>
#include <string>

namespace kelto::halvek::ctl {

/** What became of an action that was done once. */
struct ActionResult {
    int64_t milliseconds = 0;
    /** All that was logged meanwhile, a record a line. */
    std::string records;
    /** Whether there is no Warning and no Error among them. */
    bool wentWell = false;
};

/**
 * Has a real handler of the daemon's act on one event, whatever its times say, in a child process. This does what it
 * says: relays switch, the head moves, files are sent.
 *
 * @param handler  as the model has it, with the settings that it is configured from
 * @param surroundings called in the child before anything else
 * @throws Failure if the handler cannot be made or is not configured, or does not come to an end within five minutes
 */
ActionResult ActOnce(const ModelHandler& handler, const EventQuestion& question,
                     const std::function<void()>& surroundings);

}  // namespace kelto::halvek::ctl
