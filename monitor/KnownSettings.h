#pragma once

#include "env/SettingsKeys.h"

#include <string>
#include <vector>

namespace kelto::halvek {

/** The groups of one kind, and what may stand in them. */
struct KnownGroup {
    /** The groups' names, as fnmatch(3) compares: a "*" stands for the name that the user gives the source or handler.
     */
    std::string pattern;

    /** In a key's name a "*" stands for any further text. */
    std::vector<SettingsKey> keys;
};

/**
 * All groups and keys that mean something to the daemon: what its classes' tables say, and the log's settings, which
 * the platform reads. Each source type has a group "Events/Source#*" + "/" + its name, each handler type one likewise,
 * even without keys.
 *
 * For whoever looks at settings without running on them; the daemon itself does not use it. Any thread.
 */
std::vector<KnownGroup> KnownSettings();

}  // namespace kelto::halvek
