#pragma once

#include <string>

namespace kelto::halvek::ctl {

/** Time zones by the names that the environment's TZ takes. */
class Zone {
public:
    /**
     * Whether the C library would know a zone of that name: one of the zone data, a file of it by its path, or a rule
     * like "CET-1CEST,M3.5.0,M10.5.0/3". What it does not know it takes for UTC without a word.
     */
    static bool Exists(const std::string& name);
};

}  // namespace kelto::halvek::ctl
