#pragma once

#include <map>
#include <optional>
#include <string>
#include <vector>

namespace kelto::halvek::ctl {

/** Variables of an environment by their names. */
using Environment = std::map<std::string, std::string>;

/** A variable that is set and not empty: to the daemon an empty one is as good as none. */
std::optional<std::string> FindVariable(const Environment& environment, const std::string& name);

/**
 * The environment of the daemon that runs on this machine; nothing if there is none, or if it belongs to somebody else.
 *
 * It is known by its name and by an event pipe that it has open and that can be seen from here: one in a container or a
 * test beside us is another camera's.
 */
struct RunningDaemon {
    int pid;
    Environment environment;

    static std::optional<RunningDaemon> Find();
};

/** The words of a list that the unit and its drop-ins have under a key, ReadWritePaths for instance; an empty line
 * begins the list anew. Nothing without a unit. */
std::optional<std::vector<std::string>> UnitList(const std::string& key);

/** What the service manager would give the daemon, as the unit halvek.service and its drop-ins say; nothing without a
 * unit. Specifiers and what "systemctl set-environment" did are not looked at. */
std::optional<Environment> UnitEnvironment();

}  // namespace kelto::halvek::ctl
