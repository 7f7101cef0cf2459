#pragma once

#include "companions/ctl/Invocation.h"

#include <optional>
#include <string>

namespace kelto::halvek::ctl {

/**
 * Which settings a verb is about, and in which surroundings: what the command line says, else what the running daemon
 * has, else its unit, else what the caller's environment or the daemon's own default says.
 */
class StoreLocation {
public:
    /** Where the zone may come from. With CommandLine an answer does not hang on who asks, or where. */
    enum class ZoneFrom { Anywhere, CommandLine };

    /** Throws UsageError for a zone on the command line that there is not, Failure for one that comes from elsewhere.
     */
    static StoreLocation Find(const Invocation& invocation, ZoneFrom zoneFrom = ZoneFrom::Anywhere);

    /**
     * Find, then puts settings, zone and the daemon's PATH into this process's environment, and tells on standard error
     * which they are. For the main thread, before there are others.
     */
    static StoreLocation Use(const Invocation& invocation, ZoneFrom zoneFrom = ZoneFrom::Anywhere);

    /** The settings: an ini file, or a folder of them. */
    const std::string& GetPath() const { return path; }

    /** The value of TZ; nothing for the machine's own time zone. */
    const std::optional<std::string>& GetZone() const { return zone; }

    /** "settings /etc/kelto/settings (default), zone Europe/Berlin (daemon 4711)". */
    std::string Describe() const;

private:
    std::string path;
    std::string pathOrigin;
    std::optional<std::string> zone;
    std::string zoneOrigin;
    bool usesMachinesZone = false;
    std::optional<std::string> programPath;
};

}  // namespace kelto::halvek::ctl
