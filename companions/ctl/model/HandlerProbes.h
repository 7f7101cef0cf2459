#pragma once

#include "env/HandlerRegistry.h"

namespace kelto::halvek::ctl {

class Ledger;

/** The daemon's handler types, each made as a probe. */
class HandlerProbes {
public:
    /** The key by which a handler learns of its group. No key of the settings can have a line break. */
    static constexpr const char* groupKey = "group\n";

    /**
     * Fills a registry with all types that the daemon has, in its order.
     *
     * @param ledger where all handlers that are made from now on write; one at a time in a process
     * @throws Failure for a type without a probe
     */
    static void Register(Ledger& ledger, HandlerRegistry& registry);
};

}  // namespace kelto::halvek::ctl
