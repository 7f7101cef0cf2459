#include "companions/ctl/StoreLocation.h"

#include "companions/ctl/Environment.h"
#include "companions/ctl/Failure.h"
#include "companions/ctl/Terminal.h"
#include "companions/ctl/Zone.h"

#include <cstdlib>
#include <ctime>

namespace kelto::halvek::ctl {

namespace {

constexpr const char* defaultPath = "/etc/kelto/settings";
constexpr const char* pathVariable = "KELTO_SETTINGS";
constexpr const char* zoneVariable = "TZ";
/** What the clock is read by where no zone is to count. */
constexpr const char* withoutZone = "UTC";

/** The daemon's environment, and how to call it. */
struct Origin {
    std::string name;
    Environment environment;
    /** Then what it does not have is known too: the caller's own variables do not count. */
    bool isRunning;
};

/** Empty when the machine says nothing of a daemon, so that it is a desk. */
std::optional<Origin> DaemonsOrigin() {
    if (std::optional<RunningDaemon> daemon = RunningDaemon::Find()) {
        return Origin{"daemon " + std::to_string(daemon->pid), std::move(daemon->environment), true};
    }
    if (std::optional<Environment> unit = UnitEnvironment()) {
        return Origin{"unit", std::move(*unit), false};
    }
    return std::nullopt;
}

std::optional<std::string> OwnVariable(const char* name) {
    const char* const value = std::getenv(name);
    return value == nullptr || *value == '\0' ? std::nullopt : std::optional<std::string>(value);
}

}  // namespace

StoreLocation StoreLocation::Find(const Invocation& invocation, ZoneFrom zoneFrom) {
    if (invocation.zone && !Zone::Exists(*invocation.zone)) {
        throw UsageError("there is no time zone " + *invocation.zone);
    }
    const std::optional<Origin> daemon = DaemonsOrigin();
    const auto choose = [&](const std::optional<std::string>& option, const char* variable, std::string& origin) {
        if (option) {
            origin = "command line";
            return option;
        }
        if (std::optional<std::string> value =
                daemon ? FindVariable(daemon->environment, variable) : std::optional<std::string>()) {
            origin = daemon->name;
            return value;
        }
        if (daemon && daemon->isRunning) {
            return std::optional<std::string>();
        }
        origin = "environment";
        return OwnVariable(variable);
    };
    StoreLocation location;
    std::optional<std::string> path = choose(invocation.settings, pathVariable, location.pathOrigin);
    if (!path) {
        location.pathOrigin = "default";
    }
    location.path = path.value_or(defaultPath);
    if (zoneFrom == ZoneFrom::Anywhere || invocation.zone) {
        location.zone = choose(invocation.zone, zoneVariable, location.zoneOrigin);
    }
    location.usesMachinesZone = zoneFrom == ZoneFrom::Anywhere && !location.zone;
    if (location.zone && !Zone::Exists(*location.zone)) {
        throw Failure("there is no time zone " + *location.zone + " (" + location.zoneOrigin + ")");
    }
    if (daemon) {
        location.programPath = FindVariable(daemon->environment, "PATH");
    }
    return location;
}

StoreLocation StoreLocation::Use(const Invocation& invocation, ZoneFrom zoneFrom) {
    StoreLocation location = Find(invocation, zoneFrom);
    setenv(pathVariable, location.path.c_str(), 1);
    if (!location.usesMachinesZone) {
        setenv(zoneVariable, location.zone.value_or(withoutZone).c_str(), 1);
    }
    if (location.programPath) {
        setenv("PATH", location.programPath->c_str(), 1);
    }
    tzset();
    Terminal::Complain(location.Describe());
    return location;
}

std::string StoreLocation::Describe() const {
    const std::string zoneText = zone               ? *zone + " (" + zoneOrigin + ")"
                                 : usesMachinesZone ? "of this machine"
                                                    : "not looked at";
    return "settings " + path + " (" + pathOrigin + "), zone " + zoneText;
}

}  // namespace kelto::halvek::ctl
