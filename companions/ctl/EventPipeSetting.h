#pragma once

#include "companions/ctl/Invocation.h"

#include <string>

namespace kelto::halvek::ctl {

class StoreLocation;

/** Where the settings have the event pipe. */
class EventPipeSetting {
public:
    /**
     * Reads it from the settings that StoreLocation::Use has chosen. Whoever may post need not be allowed to read
     * settings: where those cannot be read and the command line names none, the daemon's default counts, and standard
     * error tells.
     *
     * @throws Failure if settings that the command line names cannot be read
     */
    static std::string Find(const Invocation& invocation, const StoreLocation& location);
};

}  // namespace kelto::halvek::ctl
